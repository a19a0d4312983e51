// The fixture of all peer tests: a directory, the library's log lines, and what to show when a test fails.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Compare.h"
#include "Host.h"
#include "LogCapture.h"
#include "Material.h"
#include "Ports.h"
#include "Process.h"
#include "TempDir.h"
#include "Wait.h"

namespace peers {

class PeerTest : public testing::Test {
  protected:
    PeerTest();
    // A failed test shows the log and the end of what every child process wrote.
    void TearDown() override;

    // Starts a child process whose output goes to a file of the test's directory.
    std::unique_ptr<Process> Start(const std::string &name, const std::vector<std::string> &args, uid_t uid = 0);
    // ffmpeg playing a material once in real time; `target` are its output options and the output.
    std::unique_ptr<Process> Send(const Material &material, const std::vector<std::string> &target);
    std::unique_ptr<Process> SendTs(const Material &material, const std::string &url,
                                    const std::vector<std::string> &more = {});

    // nginx with its prefix at `dir`/nginx; `blocks` are configuration blocks (rtmp, http, stream). Waits for `port`.
    // Blocks name or switch off every log and directory: the usual ones are root's.
    std::unique_ptr<Process> StartNginx(const std::string &blocks, uint16_t port);
    std::string NginxFile(const std::string &name) const { return dir.File("nginx/" + name); }
    // Makes dir/certificate.pem and dir/key.pem, signed by itself, for 127.0.0.1.
    void MakeCertificate() const;

    // Waits until both media of the material have delivered `span` of the stream in the newest epoch.
    bool WaitMedia(const Host &host, const Material &material, Clock::duration span, Clock::duration bound) const;
    // The whole check of a playing test: frames equal the material, records and callback tell the truth.
    void ExpectPlays(const Host &host, const Material &material, Clock::duration span = seconds(3),
                     Clock::duration bound = seconds(20));
    // A playing session whose peer has just fallen silent without a word: nobody notices until the host switches the stall watch on, which
    // ends the session; `line` is the log line of the rebuild.
    void ExpectStallWatchNotices(Host &host, const std::string &line);
    // Waits for a later epoch than `epoch` to bring frames.
    static bool WaitEpochAfter(const Host &host, uint64_t epoch, Clock::duration bound);
    // The comparison alone, for sessions that were rebuilt in between.
    void ExpectSameFrames(const Host &host, const Material &material, Clock::duration span) const;

    TempDir dir;
    LogCapture log;
    double burst = 4;  // see ExpectTruth

  private:
    std::vector<std::string> outputs_;
};

// Names of table tests whose rows are plain names.
inline std::string ParamName(const testing::TestParamInfo<const char *> &row) {
    return row.param;
}

}  // namespace peers
