// The fixture of all peer tests: the library's log lines, and what is asked of a host that plays.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Compare.h"
#include "Host.h"
#include "LogCapture.h"
#include "Material.h"
#include "Scene.h"
#include "Wait.h"

namespace peers {

// Rows of a table test that are played side by side, under one name. Each row has a name of its own.
template <typename Row>
struct Group {
    const char *name;
    std::vector<Row> rows;
};

template <typename Row>
std::ostream &operator<<(std::ostream &out, const Group<Row> &group) {
    return out << group.name;
}

// Names table tests after what they are about.
inline constexpr auto kGroupName = [](const auto &group) { return group.param.name; };

// Calls `play` with each row, on threads of their own: what waits for peers waits at the same time. Each row
// has its own scene and host; failures carry the row's name.
template <typename Rows, typename Play>
void SideBySide(const Rows &rows, Play play) {
    std::vector<std::thread> threads;
    for (const auto &row : rows) {
        threads.emplace_back([&row, &play] {
            SCOPED_TRACE(row.name);
            try {
                play(row);
            } catch (const std::exception &error) {
                ADD_FAILURE() << error.what();
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

// Fixtures are a scene as well, for tests with one host.
class PeerTest : public testing::Test {
  protected:
    // A failed test shows the log.
    void TearDown() override;

    // Opens a UDP source and waits until its socket is there, so that a sender's first datagram arrives.
    static void OpenUdp(Host &host, uint16_t port);
    // Waits until both media of the material have delivered `span` of the stream in the newest epoch.
    static bool WaitMedia(const Host &host, const Material &material, Clock::duration span);
    // How often the host's session has begun anew.
    size_t Reconnects(const Host &host) const { return log.Count("INFO", host.ReconnectLine()); }
    // The host's session begins anew, `times` times in all.
    void ExpectReconnects(const Host &host, size_t times = 1) const;
    // The whole check of a playing test: frames equal the material, records and callback tell the truth.
    static void ExpectPlays(const Host &host, const Material &material, Clock::duration span = seconds(3));
    // The same for the pipelines that are built after the one of `epoch`.
    static void ExpectPlaysAfter(uint64_t epoch, const Host &host, const Material &material);
    // A close comes back, within `bound` if there is one, whatever went before.
    static void ExpectCloses(Host &host, Clock::duration bound = kPatience);
    // A playing session whose peer has just fallen silent without a word: nobody notices until the host
    // switches the stall watch on, which ends the session.
    void ExpectStallWatchNotices(Host &host) const;

    LogCapture log;
};

}  // namespace peers
