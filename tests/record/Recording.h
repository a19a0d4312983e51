// A real sender or server, gst-source as the host of its stream, and gst-source-read that records the host's buffer.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "../peers/harness/Scene.h"
#include "RecordedFile.h"

namespace peers {

enum class Protocol { Udp, Rtsp, Srt, Rtmp, Hls };

// A file that the recorder has reported.
struct Reported {
    std::string path;
    bool complete = false;
    size_t video = 0, audio = 0;
    std::string reason;
};

// The objects of the recorder's standard output.
std::vector<Reported> ReportedFiles(const Process &recorder);
nlohmann::json Summary(const Process &recorder);

std::string ReadTool();

class Recording : public Scene {
  public:
    explicit Recording(Protocol protocol);
    ~Recording();

    // The peer plays the material from its beginning, to a host that is started with the first one.
    void Play(const Material &material);
    void StopPeer();
    // Waits until the host's buffer has had so much of the material. A source finds its peer's clock within the first
    // two seconds, and bends its times until then.
    bool WaitPlayed(const Material &material, double length) const;
    // gst-source-read record of the host's buffer; `file` is in the scene's folder.
    std::unique_ptr<Process> Record(const std::string &file, const std::vector<std::string> &more);
    const std::string &Name() const { return name_; }
    Process &Host() { return *host_; }

  private:
    void Serve(const Material &material);
    void StartHost();

    const Protocol protocol_;
    std::string name_;
    uint16_t port_;
    std::string url_;
    std::unique_ptr<Process> server_, peer_, host_;
};

}  // namespace peers
