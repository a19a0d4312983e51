// How much of a stream a decoder needs for the picture that begins at a key frame.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace reader {

enum class VideoCodec { kH264, kH265 };

class KeyPicture {
  public:
    explicit KeyPicture(VideoCodec codec);
    ~KeyPicture();
    KeyPicture(const KeyPicture &) = delete;
    KeyPicture &operator=(const KeyPicture &) = delete;

    // Takes the next access unit, that of the key frame first. True once the picture is whole: a field has its
    // second field, and a picture that is refreshed bit by bit has all of its parts.
    bool Add(std::string_view unit);
    // Of the pictures that a decoder makes of these units the last is wanted, not the first.
    bool IsRefreshed() const;

    struct Reader;

  private:
    const std::unique_ptr<Reader> m_reader;
    bool m_begun = false;
    bool m_refreshed = false;
    bool m_hasField = false;
    uint32_t m_count = 0;    // number of the last picture
    int64_t m_distance = 0;  // by how much they have risen since the first
};

}  // namespace reader
