// The files of the page. They are part of the program: no request names a file of the machine.
#pragma once

#include <memory>
#include <string>

namespace tool {

struct PageFile {
    std::string name;  // of its path, without the slash; empty: the page itself
    const char *type;
    std::shared_ptr<const std::string> plain;
    std::shared_ptr<const std::string> gzip;
    std::string tag;  // another one for another content
};

// Null for a name that is none of them.
const PageFile *PageFileNamed(const std::string &name);

}  // namespace tool
