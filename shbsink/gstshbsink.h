#ifndef GST_SHB_SINK_H
#define GST_SHB_SINK_H

#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_SHB_SINK (gst_shb_sink_get_type())
G_DECLARE_FINAL_TYPE(GstShbSink, gst_shb_sink, GST, SHB_SINK, GstBaseSink)

GST_ELEMENT_REGISTER_DECLARE(shbsink)

G_END_DECLS

#endif /* GST_SHB_SINK_H */
