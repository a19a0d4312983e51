#include "Scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace peers {

Scene::~Scene() {
    if (!testing::Test::HasFailure()) {
        return;
    }
    for (const auto &path : outputs_) {
        const std::string text = ReadFile(path);
        const size_t shown = std::min<size_t>(text.size(), 3000);
        std::printf("    --- end of %s ---\n%s\n", path.c_str(), text.substr(text.size() - shown).c_str());
    }
    std::fflush(stdout);
}

std::unique_ptr<Process> Scene::Start(const std::string &name, const std::vector<std::string> &args, uid_t uid) {
    std::string output;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        output = dir.File(name + "-" + std::to_string(outputs_.size() + 1) + ".out");
        outputs_.push_back(output);
    }
    return std::make_unique<Process>(args, Process::Options{output, {}, uid});
}

std::unique_ptr<Process> Scene::StartServer(const std::string &name, const std::vector<std::string> &args) {
    auto server = Start(name, args);
    EXPECT_TRUE(WaitFor([&] { return server->Number("port") != 0; })) << name << " does not listen";
    return server;
}

std::unique_ptr<Process> Scene::Send(const Material &material, const std::vector<std::string> &target) {
    std::vector<std::string> args = {"ffmpeg", "-nostdin",    "-hide_banner", "-loglevel", "warning", "-re",
                                     "-i",     material.path, "-map",         "0",         "-c",      "copy"};
    args.insert(args.end(), target.begin(), target.end());
    return Start("ffmpeg", args);
}

std::unique_ptr<Process> Scene::SendTs(const Material &material, const std::string &url, const std::vector<std::string> &more) {
    std::vector<std::string> target = more;
    target.insert(target.end(), {"-f", "mpegts", url});
    return Send(material, target);
}

std::unique_ptr<Process> Scene::SendUdp(const Material &material, uint16_t port, const std::vector<std::string> &more) {
    return SendTs(material, UdpUrl(port) + "?pkt_size=1316", more);
}

std::unique_ptr<Process> Scene::ServeRtsp(const Material &material, const std::vector<std::string> &more) {
    std::vector<std::string> args = {std::getenv("PEERS_RTSP_SERVER"), "--file", material.path};
    const auto add = [&](const char *option, std::string codec) {
        std::transform(codec.begin(), codec.end(), codec.begin(), [](unsigned char c) { return std::tolower(c); });
        if (!codec.empty()) {
            args.insert(args.end(), {option, codec});
        }
    };
    add("--video", material.VideoName());
    add("--audio", material.AudioName());
    args.insert(args.end(), more.begin(), more.end());
    return StartServer("rtsp-server", args);
}

std::unique_ptr<Process> Scene::StartNginx(const std::string &blocks, uint16_t port) {
    std::filesystem::create_directories(NginxFile("www"));
    // One process in the foreground: what is started is what is ended.
    WriteFile(NginxFile("nginx.conf"),
              "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
              "load_module /usr/lib/nginx/modules/ngx_stream_module.so;\n"
              "user root; daemon off; master_process off; pid nginx.pid; error_log stderr notice;\n"
              "events { worker_connections 256; }\n" +
                  blocks);
    // By its path, which ordinary users do not search; what it says before it has
    // read its configuration goes where the rest goes.
    auto nginx = Start("nginx", {"/usr/sbin/nginx", "-e", "stderr", "-p", NginxFile(""), "-c", NginxFile("nginx.conf")});
    EXPECT_TRUE(WaitFor([&] { return TcpListening(port); })) << "nginx does not listen";
    return nginx;
}

std::unique_ptr<Process> Scene::ServeHttp(uint16_t port, const std::string &server) {
    // The directories that it makes at its start by default are root's.
    std::string directories;
    for (const char *use : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        directories += std::string(use) + "_temp_path " + use + "; ";
    }
    return StartNginx(
        "http { types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; video/mp4 mp4 m4s; audio/aac aac; }\n" +
            directories +
            "log_format all '$request_uri|$status|$http_user_agent|$http_via|$remote_user|$request_method'; "
            "access_log access.log all; server { listen 127.0.0.1:" +
            std::to_string(port) + "; root www; " + server + " } }\n",
        port);
}

void Scene::MakeCertificate() const {
    RunCommand({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                "subjectAltName=IP:127.0.0.1", "-keyout", dir.File("key.pem"), "-out", dir.File("certificate.pem")},
               dir.File("openssl.out"));
}

std::string UdpUrl(uint16_t port) {
    return "udp://127.0.0.1:" + std::to_string(port);
}

}  // namespace peers
