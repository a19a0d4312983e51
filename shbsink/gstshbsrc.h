#ifndef GST_SHB_SRC_H
#define GST_SHB_SRC_H

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_SHB_SRC (gst_shb_src_get_type())
G_DECLARE_FINAL_TYPE(GstShbSrc, gst_shb_src, GST, SHB_SRC, GstElement)

GST_ELEMENT_REGISTER_DECLARE(shbsrc)

G_END_DECLS

#endif /* GST_SHB_SRC_H */
