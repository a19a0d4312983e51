// Names of the files of a recording.
#pragma once

#include <ctime>
#include <set>
#include <string>

namespace reader {

class FileNames {
  public:
    // `out`: a name, or a pattern of strftime. With `segmented`, the time is put before the suffix of a name that
    // is no pattern. `overwrite`: files of earlier runs may be replaced.
    FileNames(std::string out, bool segmented, bool overwrite);

    // What is known before the first frame: throws std::runtime_error with a message for people when the file is
    // there already, or its folder is not or cannot be written to.
    void Check() const;

    // Creates the next file, whose first frame is of this moment, with the folders that the pattern names. A name
    // that this run has used gets a number. Gives the descriptor and sets `path`; throws std::runtime_error with
    // a message for people: for one, when the first file is there already.
    int Create(time_t moment, std::string &path);

  private:
    std::string NameAt(time_t moment) const;

    const std::string m_out;
    const bool m_segmented;
    const bool m_overwrite;
    std::set<std::string> m_used;
};

// "cam.mp4" and "-2": "cam-2.mp4".
std::string WithMark(const std::string &path, const std::string &mark);

}  // namespace reader
