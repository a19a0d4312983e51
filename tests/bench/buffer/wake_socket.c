/* A Unix stream socket: the message goes through the kernel, which copies it twice. */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bench.h"
#include "wake.h"

static int server;
static int connection;

/* In the abstract name space: nothing is left behind. */
static socklen_t address_of(const wake_t *wake, struct sockaddr_un *out) {
    *out = (struct sockaddr_un){.sun_family = AF_UNIX};
    size_t length = strlen(wake_name(wake));
    memcpy(out->sun_path + 1, wake_name(wake), length);
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + length);
}

static int make_socket(void) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        bench_fail("socket");
    return fd;
}

static void open_server(wake_t *wake) {
    struct sockaddr_un address;
    socklen_t length = address_of(wake, &address);
    server = make_socket();
    if (bind(server, (struct sockaddr *)&address, length) != 0 || listen(server, 1) != 0)
        bench_fail("listen");
}

static void send_messages(wake_t *wake) {
    /* Room for a whole message, as far as the system allows it: waiting for the receiver costs more switches. */
    int room = 4 << 20;
    connection = accept(server, NULL, NULL);
    if (connection < 0)
        bench_fail("accept");
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    size_t size;
    for (void *message; (message = wake_next(wake, &size)) != NULL;) {
        wake_stamp(message);
        struct iovec part = {.iov_base = message, .iov_len = size};
        struct msghdr head = {.msg_iov = &part, .msg_iovlen = 1};
        while (part.iov_len > 0) {
            ssize_t sent = sendmsg(connection, &head, MSG_NOSIGNAL);
            if (sent < 0)
                bench_fail("sendmsg");
            part.iov_base = (unsigned char *)part.iov_base + sent;
            part.iov_len -= (size_t)sent;
        }
    }
}

static void close_server(void) {
    close(connection);
    close(server);
}

static bool take_all(int fd, unsigned char *to, size_t size) {
    for (ssize_t got; size > 0; to += got, size -= (size_t)got)
        if ((got = recv(fd, to, size, MSG_WAITALL)) <= 0)
            return false;
    return true;
}

static void receive_messages(wake_t *wake) {
    unsigned char *memory = bench_pattern(wake_largest(wake), 0);
    struct sockaddr_un address;
    socklen_t length = address_of(wake, &address);
    int fd = make_socket();
    if (connect(fd, (struct sockaddr *)&address, length) != 0)
        bench_fail("connect");
    wake_ready(wake);
    do {
        if (!take_all(fd, memory, wake_expected(wake)))
            bench_fail("recv");
    } while (wake_take(wake, memory, wake_expected(wake)));
    close(fd);
    free(memory);
}

int main(int argc, char **argv) {
    static const wake_transport_t transport = {open_server, send_messages, close_server, receive_messages};
    return wake_main(argc, argv, &transport);
}
