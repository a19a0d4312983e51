// iceoryx. The receiver sleeps in a WaitSet and takes the message where it lies. Variants: "copy" brings a
// message that exists elsewhere into the loaned chunk, as a sink for frames has to; "loan" stamps one that
// was made in the chunk, which leaves nothing but the hand-over.
#include <cstring>
#include <string>
#include <thread>

#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>

#include "bench.h"
#include "wake.h"

namespace {

iox::popo::UntypedPublisher *publisher;

iox::capro::ServiceDescription service(wake_t *wake) {
    return {"bench", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, wake_name(wake)), "message"};
}

void start_runtime(wake_t *wake, const char *side) {
    iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kError,
                                                             iox::log::LogLevelOutput::kHideLogLevel);
    const std::string name = std::string(wake_name(wake)) + side;
    iox::runtime::PoshRuntime::initRuntime(iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name));
}

void open_publisher(wake_t *wake) {
    start_runtime(wake, "-sender");
    publisher = new iox::popo::UntypedPublisher(service(wake));
}

void send_chunks(wake_t *wake) {
    const bool made_in_place = std::strcmp(wake_variant(wake), "loan") == 0;
    size_t size;
    while (!publisher->hasSubscribers()) {
        std::this_thread::yield();
    }
    while (void *message = wake_next(wake, &size)) {
        void *chunk = nullptr;
        const auto loan = [&] {
            publisher->loan(static_cast<uint32_t>(size)).and_then([&](auto &payload) { chunk = payload; }).or_else([](auto &) {
                bench_fail("no chunk to be had");
            });
        };
        if (made_in_place) {
            loan();
            std::memcpy(chunk, message, size);
            wake_stamp(chunk);
        } else {
            wake_stamp(message);
            loan();
            std::memcpy(chunk, message, size);
        }
        publisher->publish(chunk);
    }
}

void close_publisher() {
    delete publisher;
}

void receive_chunks(wake_t *wake) {
    start_runtime(wake, "-receiver");
    iox::popo::UntypedSubscriber subscriber(service(wake));
    iox::popo::WaitSet<> waitset;
    waitset.attachState(subscriber, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) { bench_fail("attachState"); });
    while (subscriber.getSubscriptionState() != iox::SubscribeState::SUBSCRIBED) {
        std::this_thread::yield();
    }
    wake_ready(wake);
    bool more = true;
    while (more) {
        waitset.wait();
        subscriber.take().and_then([&](const void *payload) {
            const auto *header = iox::mepoo::ChunkHeader::fromUserPayload(payload);
            more = wake_take(wake, payload, header->userPayloadSize());
            subscriber.release(payload);
        });
    }
}

}  // namespace

int main(int argc, char **argv) {
    static const wake_transport_t transport = {open_publisher, send_chunks, close_publisher, receive_chunks};
    return wake_main(argc, argv, &transport);
}
