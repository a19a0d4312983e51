#include "http/head.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace tool {
namespace {

constexpr size_t kLongestLine = 8000;
constexpr size_t kMostHeaders = 64;

bool IsName(std::string_view text) {
    constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char letter) {
        return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               kOthers.find(letter) != std::string_view::npos;
    });
}

bool Is(std::string_view name, const char *other) {
    return name.size() == std::string_view(other).size() && strncasecmp(name.data(), other, name.size()) == 0;
}

std::string_view Trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

class Checker {
  public:
    Head Check(std::string_view text) {
        const bool first = Line(text, [this](std::string_view line) { RequestLine(line); });
        while (first && m_head.status == 0 && Line(text, [this](std::string_view line) { Header(line); })) {
        }
        // Some health checks speak HTTP/1.0 without one. A browser always sends it.
        if (m_head.status == 0 && m_hosts != 1 && (m_hosts > 1 || !m_old)) {
            Refuse(400, "exactly one Host header is needed");
        }
        m_head.text += "\r\n";
        return std::move(m_head);
    }

  private:
    void Refuse(int status, const char *message) {
        if (m_head.status == 0) {
            m_head.status = status;
            m_head.message = message;
        }
    }

    // Takes the next line off; false for the empty one.
    template <typename Use>
    bool Line(std::string_view &text, Use use) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (line.empty()) {
            return false;
        }
        const bool control = std::any_of(line.begin(), line.end(), [](char letter) {
            constexpr char kBlank = 0x20;
            constexpr char kDelete = 0x7F;
            return (letter >= 0 && letter < kBlank && letter != '\t') || letter == kDelete;
        });
        if (control) {
            Refuse(400, "the request has control characters");
        } else if (line.size() > kLongestLine) {
            Refuse(m_head.text.empty() ? 414 : 431, m_head.text.empty() ? "the path is too long" : "a header is too long");
        } else {
            use(line);
        }
        return true;
    }

    void Keep(std::string_view line) { (m_head.text += line) += "\r\n"; }

    void RequestLine(std::string_view line) {
        const size_t first = line.find(' ');
        const size_t last = line.rfind(' ');
        const bool plain = std::all_of(line.begin(), line.end(), [](char letter) { return letter > 0 && letter != '\t'; });
        if (first == std::string_view::npos || first == last || !IsName(line.substr(0, first)) || !plain ||
            line.substr(first + 1, last - first - 1).find(' ') != std::string_view::npos) {
            Refuse(400, "the request line is malformed");
            return;
        }
        const std::string_view version = line.substr(last + 1);
        if (version != "HTTP/1.1" && version != "HTTP/1.0") {
            Refuse(505, "HTTP/1.1 and HTTP/1.0 are spoken here");
        }
        m_old = version == "HTTP/1.0";
        constexpr std::array<std::string_view, 7> kMethods{"GET", "HEAD", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"};
        if (std::find(kMethods.begin(), kMethods.end(), line.substr(0, first)) == kMethods.end()) {
            Refuse(501, "this method is not known here");
        }
        Keep(line);
    }

    void Header(std::string_view line) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || !IsName(line.substr(0, colon))) {
            Refuse(400, "a header is malformed");
            return;
        }
        const std::string_view name = line.substr(0, colon);
        const std::string_view value = Trimmed(line.substr(colon + 1));
        if (++m_headers > kMostHeaders) {
            Refuse(431, "there are too many headers");
        }
        m_hosts += Is(name, "Host") ? 1U : 0U;
        if (Is(name, "Transfer-Encoding")) {
            Refuse(411, "a body needs a Content-Length");
        }
        if (Is(name, "Content-Length")) {
            Length(value);
        }
        if (!Is(name, "Range") && !Is(name, "Expect") && !Is(name, "Content-Length")) {
            Keep(line);
        }
    }

    void Length(std::string_view value) {
        size_t length = 0;
        const auto end = std::from_chars(value.data(), value.data() + value.size(), length);
        const bool number = !value.empty() && value.find_first_not_of("0123456789") == std::string_view::npos;
        if (!number || m_lengths++ > 0) {
            Refuse(400, "the Content-Length is malformed");
        } else if (end.ec != std::errc() || length > kMostBody) {
            Refuse(413, "the body is too large");
        }
        m_head.body = length;
    }

    Head m_head;
    bool m_old = false;  // HTTP/1.0
    size_t m_hosts = 0;
    size_t m_headers = 0;
    size_t m_lengths = 0;
};

}  // namespace

std::optional<size_t> HeadSize(std::string_view received) {
    // Also lines that end in LF alone, which some tools send.
    for (size_t end = received.find('\n'); end != std::string_view::npos; end = received.find('\n', end + 1)) {
        const std::string_view rest = received.substr(end + 1);
        if (rest.substr(0, 1) == "\n" || rest.substr(0, 2) == "\r\n") {
            return end + 1 + (rest.front() == '\n' ? 1U : 2U);
        }
    }
    return std::nullopt;
}

Head CheckHead(std::string_view head) {
    return Checker().Check(head);
}

}  // namespace tool
