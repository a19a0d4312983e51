"""A TCP server that is no use to anybody: "silent" takes connections and says nothing, "closing" ends each as soon as something was asked,
"empty-rtsp" answers RTSP with a description that has no media. Prints "port N" once it listens."""
import socket
import sys
import threading

SDP = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=nothing\r\nt=0 0\r\n"


def empty_rtsp(peer):
    asked = b""
    while True:
        got = peer.recv(4096)
        if not got:
            return
        asked += got
        while b"\r\n\r\n" in asked:
            request, asked = asked.split(b"\r\n\r\n", 1)
            lines = request.decode().split("\r\n")
            sequence = [line.split(":")[1].strip() for line in lines if line.lower().startswith("cseq:")][0]
            answer = f"RTSP/1.0 200 OK\r\nCSeq: {sequence}\r\n"
            if lines[0].startswith("OPTIONS"):
                answer += "Public: DESCRIBE, SETUP, PLAY\r\n\r\n"
            elif lines[0].startswith("DESCRIBE"):
                answer += f"Content-Type: application/sdp\r\nContent-Length: {len(SDP)}\r\n\r\n{SDP}"
            else:
                answer += "\r\n"
            peer.sendall(answer.encode())


def closing(peer):
    peer.recv(1)
    peer.close()


def main():
    server = socket.create_server(("127.0.0.1", 0), backlog=100)
    print("port", server.getsockname()[1], flush=True)
    kept = []
    while True:
        peer = server.accept()[0]
        if sys.argv[1] == "silent":
            kept.append(peer)
        else:
            threading.Thread(target={"closing": closing, "empty-rtsp": empty_rtsp}[sys.argv[1]], args=(peer,), daemon=True).start()


main()
