// The live table: drawn in place on a terminal.
#pragma once

#include "log_capture.h"
#include "screen.h"
#include "table.h"
#include "view.h"

namespace tool {

class TableView : public View {
  public:
    // `terminal` is not owned. `log` is asked for its last lines and must outlive the view.
    TableView(int terminal, bool colors, const LogCapture &log, bool log_kept_elsewhere);

    bool Show(const RunSample &run) override;
    void Finish(const RunSample &run) override;
    bool IsLive() const override { return true; }

  private:
    bool Draw(const RunSample &run);

    Screen m_screen;
    const bool m_colors;
    const LogCapture &m_log;
    const bool m_logKeptElsewhere;
};

}  // namespace tool
