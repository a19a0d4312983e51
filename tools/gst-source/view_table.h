// The live table: drawn in place on a terminal.
#pragma once

#include "keys.h"
#include "log_capture.h"
#include "screen.h"
#include "table.h"
#include "view.h"

namespace tool {

class TableView : public View {
  public:
    // `terminal` is not owned. `log` is asked for its last lines and must outlive the view. `input`: where
    // keys come from, when it is the controlling terminal; -1 for no keys.
    TableView(int terminal, bool colors, const LogCapture &log, bool log_kept_elsewhere, int input = -1);

    bool Show(const RunSample &run) override;
    void Finish(const RunSample &run) override;
    bool IsLive() const override { return true; }
    int InputDescriptor() const override { return m_keyboard.Descriptor(); }
    Asked OnInput() override;

  private:
    bool Draw(const RunSample &run);
    Asked OnKey(const KeyPress &press);

    Screen m_screen;
    Keyboard m_keyboard;
    TableControl m_control;
    size_t m_page = 1;   // sources that the last table showed
    size_t m_total = 0;  // and there were
    const bool m_colors;
    const LogCapture &m_log;
    const bool m_logKeptElsewhere;
};

}  // namespace tool
