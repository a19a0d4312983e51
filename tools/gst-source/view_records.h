// Reports as lines for programs and log files: key=value or JSON.
#pragma once

#include "view.h"

namespace tool {

enum class RecordFormat { kKeyValue, kJson };

class RecordView : public View {
  public:
    // A descriptor of -1: those are not written. Descriptors are not owned.
    RecordView(RecordFormat format, int reports, int summary);

    bool Show(const RunSample &run) override;
    void Finish(const RunSample &run) override;

  private:
    const RecordFormat m_format;
    const int m_reports;
    const int m_summary;
};

}  // namespace tool
