// The head of a request as it comes from the network, looked at before anybody takes it apart.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

constexpr size_t kMostHead = size_t{16} << 10U;  // bytes, of request line and headers together
constexpr size_t kMostBody = size_t{4} << 10U;   // bytes

struct Head {
    int status = 0;       // 0: good; else what the request is refused with
    std::string message;  // why
    size_t body = 0;      // bytes that follow
    // Request line and headers for the HTTP library: lines end in CR LF, and headers that it would act on itself
    // are left out (Range: it cuts answers; Expect: it writes before the answer).
    std::string text;
};

// Bytes of the head at the beginning of what has come so far, with its empty line; nothing while that has not come.
std::optional<size_t> HeadSize(std::string_view received);
// `head` with its empty line.
Head CheckHead(std::string_view head);

}  // namespace tool
