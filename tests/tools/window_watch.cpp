#include "window_watch.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <csignal>
#include <stdexcept>

#include "run_support.h"

struct WindowWatch::Connection {
    explicit Connection(const std::string &display) : server(XOpenDisplay(display.c_str())) {
        if (server == nullptr) {
            throw std::runtime_error("no X server at " + display);
        }
        // A window may go between two questions.
        XSetErrorHandler([](::Display *, XErrorEvent *) { return 0; });
    }
    ~Connection() { XCloseDisplay(server); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // 0: none.
    Window Find(const std::string &title) const {
        Window root = 0;
        Window parent = 0;
        Window *windows = nullptr;
        unsigned count = 0;
        Window found = 0;
        if (XQueryTree(server, DefaultRootWindow(server), &root, &parent, &windows, &count) == 0) {
            return 0;
        }
        for (unsigned i = 0; i < count; ++i) {
            char *name = nullptr;
            if (XFetchName(server, windows[i], &name) != 0 && name != nullptr) {
                found = name == title ? windows[i] : found;
                XFree(name);
            }
        }
        if (windows != nullptr) {
            XFree(windows);
        }
        return found;
    }

    ::Display *const server;
};

WindowWatch::WindowWatch()
    // It says its number on standard output once it can be used. Without -noreset it starts anew when its last
    // client goes, and refuses connections meanwhile.
    : m_server(Words("Xvfb -displayfd 1 -noreset -nolisten tcp -screen 0 1280x1024x24")) {
    if (!WaitWhileRunning(m_server, [this] { return Has(m_server.Out(), "\n"); })) {
        throw std::runtime_error("Xvfb: " + m_server.Err());
    }
    m_display = ":" + Lines(m_server.Out()).front();
    m_connection = std::make_unique<Connection>(m_display);
}

WindowWatch::~WindowWatch() {
    m_connection.reset();
    // It removes its files.
    m_server.Signal(SIGTERM);
    m_server.Wait();
}

std::optional<WindowWatch::Size> WindowWatch::SizeOf(const std::string &title) const {
    XWindowAttributes attributes{};
    const Window window = m_connection->Find(title);
    if (window == 0 || XGetWindowAttributes(m_connection->server, window, &attributes) == 0 ||
        attributes.map_state != IsViewable) {
        return std::nullopt;
    }
    return Size{static_cast<unsigned>(attributes.width), static_cast<unsigned>(attributes.height)};
}

std::optional<uint32_t> WindowWatch::ColourAt(const std::string &title, int x, int y) const {
    if (!SizeOf(title)) {
        return std::nullopt;
    }
    XImage *image = XGetImage(m_connection->server, m_connection->Find(title), x, y, 1, 1, AllPlanes, ZPixmap);
    if (image == nullptr) {
        return std::nullopt;
    }
    const auto pixel = static_cast<uint32_t>(XGetPixel(image, 0, 0) & 0xffffffU);
    XDestroyImage(image);
    return pixel;
}

void WindowWatch::Close(const std::string &title) const {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = m_connection->Find(title);
    event.xclient.message_type = XInternAtom(m_connection->server, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(m_connection->server, "WM_DELETE_WINDOW", False));
    XSendEvent(m_connection->server, event.xclient.window, False, NoEventMask, &event);
    XFlush(m_connection->server);
}
