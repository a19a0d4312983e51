// A TCP relay on loopback that can be held: it then keeps its connections, accepts new ones, reads what they
// say, and says nothing, as a server does that hangs, or a network that has lost the way back.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <thread>

namespace peers {

class Relay {
  public:
    explicit Relay(uint16_t target);
    ~Relay();
    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;

    uint16_t Port() const { return port_; }
    void Hold() { held_ = true; }
    // Connections that were made while it was held have no other end: they are closed.
    void Release() { held_ = false; }
    // Connections accepted so far.
    size_t Accepted() const { return accepted_; }

  private:
    void Run();
    void Accept();
    // False when one end is gone.
    bool Pass(int from);
    void Forget(int one);

    uint16_t target_;
    uint16_t port_ = 0;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> held_{false};
    std::atomic<size_t> accepted_{0};
    std::map<int, int> other_;  // both ends of each connection; -1: none
    std::thread thread_;
};

}  // namespace peers
