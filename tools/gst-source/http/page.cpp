#include "http/page.h"

#include <zlib.h>

#include <algorithm>
#include <array>

#include "http/answers.h"
#include "http/page_text.h"

namespace tool {
namespace {

PageFile MakeFile(const char *name, const char *type, const char *text) {
    auto plain = std::make_shared<const std::string>(text);
    const auto sum = crc32(0, reinterpret_cast<const Bytef *>(plain->data()), static_cast<uInt>(plain->size()));
    auto gzip = std::make_shared<const std::string>(Gzip(*plain));
    return {name, type, plain, gzip, std::to_string(sum)};
}

}  // namespace

const PageFile *PageFileNamed(const std::string &name) {
    static const std::array<PageFile, 4> files{
        MakeFile("", "text/html; charset=utf-8", kPageHtml), MakeFile("page.css", "text/css; charset=utf-8", kPageCss),
        MakeFile("page.js", "text/javascript; charset=utf-8", kPageJs), MakeFile("icon.svg", "image/svg+xml", kPageIcon)};
    const auto *const found =
        std::find_if(files.begin(), files.end(), [&name](const PageFile &file) { return file.name == name; });
    return found == files.end() ? nullptr : found;
}

}  // namespace tool
