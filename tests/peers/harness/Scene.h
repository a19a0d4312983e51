// The other end: a directory, and the senders and servers that work there. Scenes do not know of each
// other, so that several can be played side by side.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Material.h"
#include "Ports.h"
#include "Process.h"
#include "TempDir.h"
#include "Wait.h"

namespace peers {

class Scene {
  public:
    Scene() = default;
    // When the test has failed, shows the end of what every child process wrote.
    ~Scene();
    Scene(const Scene &) = delete;
    Scene &operator=(const Scene &) = delete;

    // Starts a child process whose output goes to a file of its own in the scene's directory.
    std::unique_ptr<Process> Start(const std::string &name, const std::vector<std::string> &args, uid_t uid = 0);
    // The same for a server that says "port N" once it listens.
    std::unique_ptr<Process> StartServer(const std::string &name, const std::vector<std::string> &args);
    // ffmpeg playing a material once in real time; `target` are its output options and the output.
    std::unique_ptr<Process> Send(const Material &material, const std::vector<std::string> &target);
    std::unique_ptr<Process> SendTs(const Material &material, const std::string &url,
                                    const std::vector<std::string> &more = {});
    // As a transport stream to a UDP port of this machine.
    std::unique_ptr<Process> SendUdp(const Material &material, uint16_t port, const std::vector<std::string> &more = {});

    // The server of servers/rtsp-server.c with the material at "/stream", and with more of its options.
    std::unique_ptr<Process> ServeRtsp(const Material &material, const std::vector<std::string> &more = {});
    // nginx with its prefix at `dir`/nginx; `blocks` are configuration blocks (rtmp, http, stream). Waits for
    // `port`. Blocks name or switch off every log and directory: the usual ones are root's.
    std::unique_ptr<Process> StartNginx(const std::string &blocks, uint16_t port);
    // nginx that hands out what is in `dir`/nginx/www; `server` is put into its server
    // block. Its access.log has a line for each request: address, status, user agent,
    // proxies on the way, user and method, separated by bars.
    std::unique_ptr<Process> ServeHttp(uint16_t port, const std::string &server = "");
    std::string NginxFile(const std::string &name) const { return dir.File("nginx/" + name); }
    // Makes dir/certificate.pem and dir/key.pem, signed by itself, for 127.0.0.1.
    void MakeCertificate() const;

    TempDir dir;

  private:
    std::mutex mutex_;
    std::vector<std::string> outputs_;
};

std::string UdpUrl(uint16_t port);

}  // namespace peers
