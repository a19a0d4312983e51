#include "log_level.h"

#include <fcntl.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fd.h"
#include "screen.h"
#include "temp_dir.h"
#include "text.h"

using namespace tool;

namespace {

// Sets a variable for a while, or takes it away with null.
class Variable {
  public:
    Variable(const char *name, const char *value) : m_name(name) {
        const char *before = std::getenv(name);
        m_had = before != nullptr;
        m_before = m_had ? before : "";
        Set(value);
    }
    ~Variable() { Set(m_had ? m_before.c_str() : nullptr); }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

  private:
    void Set(const char *value) const {
        if (value != nullptr) {
            setenv(m_name, value, 1);
        } else {
            unsetenv(m_name);
        }
    }
    const char *const m_name;
    bool m_had = false;
    std::string m_before;
};

}  // namespace

TEST(LogLevel, OfTheLinesOfTheLog) {
    for (const auto &[line, level] : std::vector<std::pair<std::string, LogLevel>>{
             {"[2024-05-01 12.00.00] (FATAL) (85) text", LogLevel::kError},
             {"[2024-05-01 12.00.00] (ERR) (85) [GSTREAMER] Error from \"Udpsrc\": (WARN) (1)", LogLevel::kError},
             {"[2024-05-01 12.00.00] (WARN) (85) text", LogLevel::kWarning},
             {"[2024-05-01 12.00.00] (INFO) (85) text ERROR", LogLevel::kInfo},
             {"[2024-05-01 12.00.00] (DEBUG) (85) text", LogLevel::kDebug},
             {"[2024-05-01 12.00.00] (LOUD) (85) text", LogLevel::kInfo},
             {"[2024-05-01 12.00.00] ", LogLevel::kInfo},
             {"[2024-05-01 12.00", LogLevel::kInfo},
             {"0:00:00.123456789 12345 0x55d0c0ffee00 ERROR  udpsrc gstudpsrc.c:1:f:<a> text", LogLevel::kError},
             {"1000:00:00.123456789 1 0x1 WARN  default x.c:1:f: text", LogLevel::kWarning},
             {"0:00:00.123456789    12 0x7f00 FIXME default x.c:1:f: text", LogLevel::kInfo},
             {"0:00:00.123456789    12 0x7f00 INFO  default x.c:1:f: text", LogLevel::kInfo},
             {"0:00:00.123456789    12 0x7f00 DEBUG default x.c:1:f: text", LogLevel::kDebug},
             {"0:00:00.123456789    12 0x7f00 TRACE default x.c:1:f: text", LogLevel::kDebug},
             {"0:00:00.123456789 ERROR text", LogLevel::kInfo},
             {"12:00 ERROR", LogLevel::kInfo},
             {"(gst-source:1): GLib-CRITICAL **: 12:00:00.000: text", LogLevel::kError},
             {"(process:4711): GLib-GObject-WARNING **: 12:00:00.000: text", LogLevel::kWarning},
             {"** (process:1): WARNING **: 12:00:00.000: text", LogLevel::kWarning},
             {"(process:1): libsoup-DEBUG: 12:00:00.000: text", LogLevel::kDebug},
             {"GLib-Message: 12:00:00.000: text", LogLevel::kInfo},
             {"** INFO: 12:00:00.000: text", LogLevel::kInfo},
             {"(process:1) GLib-CRITICAL", LogLevel::kInfo},
             {"ERROR: RTMP_Connect1, handshake failed.", LogLevel::kError},
             {"WARNING: Trying default location", LogLevel::kWarning},
             {"--------message->src:----audioshbsink", LogLevel::kInfo},
             {"", LogLevel::kInfo},
             {"(", LogLevel::kInfo},
             {"** ", LogLevel::kInfo},
             {"-: x", LogLevel::kInfo}}) {
        EXPECT_EQ(LevelOf(line), level) << line;
    }
}

namespace {

// The lines that the framework's own function would write.
std::vector<std::string> g_framework_lines;  // NOLINT(cert-err58-cpp): empty

void TakeLine(GstDebugCategory *category, GstDebugLevel level, const gchar *file, const gchar *function, gint line,
              GObject *object, GstDebugMessage *message, gpointer /*user*/) {
    gchar *text = gst_debug_log_get_line(category, level, file, function, line, object, message);
    g_framework_lines.emplace_back(text);
    g_free(text);
}

}  // namespace

// What the libraries of this machine write, not what we remember of it.
TEST(LogLevel, OfWhatGlibReallyWrites) {
    const GLogField fields[] = {{"MESSAGE", "text", -1}, {"GLIB_DOMAIN", "Domain", -1}};
    for (const auto &[glib, level] :
         {std::pair(G_LOG_LEVEL_CRITICAL, LogLevel::kError), std::pair(G_LOG_LEVEL_WARNING, LogLevel::kWarning),
          std::pair(G_LOG_LEVEL_MESSAGE, LogLevel::kInfo), std::pair(G_LOG_LEVEL_INFO, LogLevel::kInfo),
          std::pair(G_LOG_LEVEL_DEBUG, LogLevel::kDebug)}) {
        for (const gsize count : {1U, 2U}) {
            for (const bool colors : {false, true}) {
                gchar *text =
                    g_log_writer_format_fields(glib, static_cast<const GLogField *>(fields), count, colors ? TRUE : FALSE);
                const std::string line = StripEscapes(text, false);
                g_free(text);
                EXPECT_EQ(LevelOf(line.substr(line.find_first_not_of('\n'))), level) << line;
            }
        }
    }
}

TEST(LogLevel, OfWhatTheFrameworkReallyWrites) {
    gst_init(nullptr, nullptr);
    GstDebugCategory *category = nullptr;
    GST_DEBUG_CATEGORY_INIT(category, "log-level-test", 0, "");
    gst_debug_category_set_threshold(category, GST_LEVEL_COUNT);
    // In brackets: macros of these names compare functions with objects.
    (gst_debug_remove_log_function)(gst_debug_log_default);
    for (const GstDebugColorMode mode : {GST_DEBUG_COLOR_MODE_OFF, GST_DEBUG_COLOR_MODE_UNIX}) {
        gst_debug_set_color_mode(mode);
        for (const auto &[framework, level] :
             {std::pair(GST_LEVEL_ERROR, LogLevel::kError), std::pair(GST_LEVEL_WARNING, LogLevel::kWarning),
              std::pair(GST_LEVEL_FIXME, LogLevel::kInfo), std::pair(GST_LEVEL_INFO, LogLevel::kInfo),
              std::pair(GST_LEVEL_DEBUG, LogLevel::kDebug), std::pair(GST_LEVEL_LOG, LogLevel::kDebug),
              std::pair(GST_LEVEL_TRACE, LogLevel::kDebug)}) {
            g_framework_lines.clear();
            (gst_debug_add_log_function)(TakeLine, nullptr, nullptr);
            GST_CAT_LEVEL_LOG(category, framework, nullptr, "%s", "ERROR WARN text");
            (gst_debug_remove_log_function)(TakeLine);
            ASSERT_EQ(g_framework_lines.size(), 1U);
            const std::string line = StripEscapes(g_framework_lines[0], false);
            EXPECT_EQ(line.find('\x1b'), std::string::npos);
            EXPECT_EQ(LevelOf(line), level) << line;
        }
    }
    (gst_debug_add_log_function)(gst_debug_log_default, nullptr, nullptr);
}

TEST(LogLevel, PolicyOfTheFlags) {
    const auto policy = [](bool quiet, unsigned verbose, const char *level) {
        const LogPolicy of = PolicyOf(quiet, verbose, level);
        return std::pair(of.to_target, of.to_table);
    };
    EXPECT_EQ(policy(false, 0, ""), std::pair(LogLevel::kDebug, LogLevel::kWarning));
    EXPECT_EQ(policy(false, 1, ""), std::pair(LogLevel::kDebug, LogLevel::kDebug));
    EXPECT_EQ(policy(true, 0, ""), std::pair(LogLevel::kError, LogLevel::kError));
    EXPECT_EQ(policy(true, 2, "info"), std::pair(LogLevel::kInfo, LogLevel::kInfo));
    EXPECT_EQ(policy(false, 0, "warning"), std::pair(LogLevel::kWarning, LogLevel::kWarning));
    EXPECT_FALSE(PolicyOf(false, 0, "").Filters());
    EXPECT_TRUE(PolicyOf(true, 0, "").Filters());
    try {
        PolicyOf(false, 0, "wraning");
        ADD_FAILURE();
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "--log-level: \"wraning\" is not error, warning, info or debug; did you mean warning?");
    }
}

TEST(LogLevel, TheJournalIsKnownByItsFile) {
    const TempDir dir;
    const Fd file(open(dir.Write("journal", "").c_str(), O_WRONLY | O_CLOEXEC));
    struct stat about {};
    ASSERT_EQ(fstat(file.Get(), &about), 0);
    const std::string stream = std::to_string(about.st_dev) + ":" + std::to_string(about.st_ino);
    {
        const Variable journal("JOURNAL_STREAM", nullptr);
        EXPECT_FALSE(IsJournal(file.Get()));
    }
    const Variable journal("JOURNAL_STREAM", stream.c_str());
    EXPECT_TRUE(IsJournal(file.Get()));
    EXPECT_FALSE(IsJournal(-1));
    const Fd other(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(IsJournal(other.Get()));
}

TEST(LogLevel, TheStampOfTheLibraryCanGo) {
    EXPECT_EQ(WithoutStamp("[2024-05-01 12.00.00] (ERR) (85) text"), "(ERR) (85) text");
    for (const char *line : {"", "[2024-05-01 12.00.00] ", "[2024-05-01 12.00] (ERR) text", "0:00:00.1 text", "text"}) {
        EXPECT_EQ(WithoutStamp(line), line);
    }
}

TEST(LogLevel, TheFrameworkIsToldToLeaveColorsOut) {
    const Fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const Variable mode("GST_DEBUG_COLOR_MODE", "on");
    const Variable color("GST_DEBUG_NO_COLOR", nullptr);
    KeepFrameworkPlain(null.Get());
    ASSERT_NE(std::getenv("GST_DEBUG_NO_COLOR"), nullptr);
    EXPECT_EQ(std::getenv("GST_DEBUG_COLOR_MODE"), nullptr);
}
