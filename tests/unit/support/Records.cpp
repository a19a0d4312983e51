#include "Records.h"

#include <sstream>

namespace unit {

std::string Describe(const media_code_info_t &info) {
    std::ostringstream text;
    text << FieldText(info.code) << ' ';
    if (info.type == 0) {
        const video_params_t &video = info.params.video;
        text << video.width << 'x' << video.height << ' ' << video.fps << " fps, scan " << int{video.scan_type} << ", "
             << int{video.ref_frames} << " references";
    } else if (info.type == 1) {
        const audio_params_t &audio = info.params.audio;
        text << audio.sample_rate << " Hz, " << audio.channels << " channels, " << audio.no_samples << " samples, extra "
             << audio.extra;
    } else {
        text << "of type " << info.type;
    }
    return text.str();
}

std::string Describe(const source_status_t &status) {
    std::ostringstream text;
    text << FieldText(status.source_mode) << ' ' << FieldText(status.state) << ": " << FieldText(status.video_code) << ' '
         << status.width << 'x' << status.height << ' ' << status.fps << " fps, " << status.video_real_fps << " real, "
         << status.video_bitrate << " bit/s; " << FieldText(status.audio_code) << ' ' << status.sample_rate << " Hz, "
         << status.channels << " channels, " << status.audio_real_fps << " real, " << status.audio_bitrate << " bit/s";
    return text.str();
}

}  // namespace unit
