// A file that is there whole or not at all.
#pragma once

#include <string>
#include <string_view>

#include "fd.h"

namespace reader {

class PictureFile {
  public:
    // Makes the temporary file beside `path`, so that a place where nothing can be written shows at once; "-" is
    // standard output, which has none. Throws std::runtime_error with a message for people, as Finish does.
    explicit PictureFile(const std::string &path);
    // Without Finish nothing is left.
    ~PictureFile();
    PictureFile(const PictureFile &) = delete;
    PictureFile &operator=(const PictureFile &) = delete;

    // Writes all of it and gives it its name.
    void Finish(std::string_view data);

  private:
    const std::string m_path;
    std::string m_temporary;  // empty: none
    tool::Fd m_file;
};

}  // namespace reader
