#include "view_records.h"

#include "fd.h"
#include "fields.h"
#include "format.h"
#include "interrupts.h"

namespace tool {

RecordView::RecordView(RecordFormat format, int reports, int summary)
    : m_format(format), m_reports(reports), m_summary(summary) {}

bool RecordView::Show(const RunSample &run) {
    if (m_reports < 0) {
        return true;
    }
    const std::string time = TimeNow();
    std::string lines;
    for (const SourceSample &source : run.sources) {
        const Record record = SampleRecord(run, source, time);
        lines += m_format == RecordFormat::kJson ? JsonLine(record) : KeyValueLine(record);
    }
    return WriteAll(m_reports, lines, interrupts::PatienceAfterStop());
}

void RecordView::Finish(const RunSample &run) {
    if (m_summary < 0) {
        return;
    }
    const std::string time = TimeNow();
    std::string lines;
    for (const SourceSample &source : run.sources) {
        lines += m_format == RecordFormat::kJson ? JsonLine(SummaryRecord(run, source, time)) : FormatSummary(source) + "\n";
    }
    WriteAll(m_summary, lines, interrupts::PatienceAfterStop());
}

}  // namespace tool
