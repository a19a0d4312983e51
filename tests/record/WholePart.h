// What is whole of a file that somebody was killed while writing.
#pragma once

#include <string>

namespace peers {

// Copies the file up to its last whole fragment: of MP4 a movie fragment with its data, of Matroska a cluster, of a
// transport stream a packet of one of its streams. False when there is none.
bool CopyWholePart(const std::string &path, const std::string &copy);

}  // namespace peers
