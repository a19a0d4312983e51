// What the tests of the built tools have in common: a sender, texts, the shared memory that a run leaves.
#pragma once

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "child.h"
#include "words.h"

using Json = nlohmann::json;

std::string UdpUrl(unsigned short port);

std::vector<std::string> Lines(const std::string &text);
bool Has(const std::string &text, const std::string &part);

// The record has these fields with these values, and others.
void ExpectFields(const Json &record, const Json &expected);

// Gives up at once when the child has ended, since nothing more will come of it.
template <typename Condition>
bool WaitWhileRunning(Child &child, const Condition &condition) {
    bool met = false;
    WaitFor([&] {
        const bool running = child.Running();
        met = condition();
        return met || !running;
    });
    return met;
}

// What Child::Wait() says of a process that has been sent a signal of a crash. The sanitizer takes SIGSEGV for one of its own
// finds, reports it and aborts.
inline int ExitOfCrash(int number) {
    constexpr int kSignalled = 256;
#ifdef __SANITIZE_ADDRESS__
    return kSignalled + (number == SIGSEGV ? SIGABRT : number);
#else
    return kSignalled + number;
#endif
}

// H.264 and AAC in real time, for as long as it lives. It is under way when it has been made: a source that
// waits for it meanwhile could take it for silent.
class Sender : public Child {
  public:
    explicit Sender(const std::string &url, bool video = true);
};

// The files of a buffer: one of its name, one whose name goes on behind a "+", and one of what stands there.
std::vector<std::string> MemoryOf(const std::string &name);
bool MemoryLeft(const std::string &name);

// One that no other run has.
std::string BufferName(const std::string &test);
