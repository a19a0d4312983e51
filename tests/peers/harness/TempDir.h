// A directory of one test, removed with everything in it.
#pragma once

#include <string>

namespace peers {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &text);

}  // namespace peers
