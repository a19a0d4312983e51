// Peers on the loopback interface that keep a source in mid-air for as long as they live.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace unit {

enum class Stall {
    Refusing,    // nobody listens
    Dropping,    // the connection is never answered (TCP)
    Silent,      // connected, and then not a byte
    HalfAnswer,  // the first half of what the protocol answers, and then not a byte
};

class StalledPeer {
  public:
    // `protocol` is a source_type_t: it decides on TCP or UDP and on the half answer.
    StalledPeer(int protocol, Stall stall);
    ~StalledPeer();
    StalledPeer(const StalledPeer &) = delete;
    StalledPeer &operator=(const StalledPeer &) = delete;

    int Port() const { return m_port; }
    // True once the source has come as far as it will.
    bool Reached() const;

  private:
    void Serve();

    const int m_protocol;
    const Stall m_stall;
    int m_listener = -1;
    int m_port = 0;
    std::vector<int> m_fillers;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_reached{false};
    std::thread m_thread;
};

}  // namespace unit
