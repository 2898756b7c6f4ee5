#!/usr/bin/python3
"""ravlet-server under connections that hold it: started with a lowered open-file limit, it
must still answer /health while many silent connections sit open, close them on time, and
send a large update package without holding it in memory.

    idle_connections_bench.py <ravlet-server> [--idle 500] [--soft-limit 64] [--package-mb 200]

Reports the /health p95 while the connections are open, the descriptor limit the server
runs with, how many connections remain open after the head time-out, and the server's peak
memory before and after a package download.
"""
import argparse, os, resource, socket, statistics, subprocess, tempfile, time, urllib.request


def peak_kb(pid):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM:"))


def open_files_limit(pid):
    with open(f"/proc/{pid}/limits") as limits:
        return next(line.split()[3] for line in limits if line.startswith("Max open files"))


def server_sockets(pid):
    return sum(1 for fd in os.listdir(f"/proc/{pid}/fd")
               if os.readlink(f"/proc/{pid}/fd/{fd}").startswith("socket:"))


def open_silent(port, count, source=None):
    """Connections that send nothing, as many as are accepted within 2 s each."""
    opened = []
    for _ in range(count):
        try:
            opened.append(socket.create_connection(("127.0.0.1", port), timeout=2,
                                                   source_address=(source, 0) if source else None))
        except OSError:
            break
    return opened


def health_ms(base):
    start = time.perf_counter()
    with urllib.request.urlopen(base + "/health", timeout=10) as reply:
        reply.read()
    return (time.perf_counter() - start) * 1000


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--idle", type=int, default=500)
    parser.add_argument("--soft-limit", type=int, default=64)
    parser.add_argument("--package-mb", type=int, default=200)
    args = parser.parse_args()
    # This process holds the other ends.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

    with tempfile.TemporaryDirectory() as data:
        updates = os.path.join(data, "updates")
        os.mkdir(updates)
        package = os.path.join(updates, "RavletAI-99.0.0-linux-x86_64.tar.gz")
        with open(package, "wb") as out:
            for _ in range(args.package_mb):
                out.write(os.urandom(1024 * 1024))
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        base = f"http://127.0.0.1:{port}"
        process = subprocess.Popen(
            ["prlimit", f"--nofile={args.soft_limit}:{hard}", args.server, "--listen", f"127.0.0.1:{port}",
             "--updates-dir", updates],
            env=dict(os.environ, XDG_DATA_HOME=data), stderr=subprocess.DEVNULL)
        try:
            for _ in range(200):
                try:
                    health_ms(base)
                    break
                except OSError:
                    time.sleep(0.05)
            print(f"server started with a soft limit of {args.soft_limit}; runs with {open_files_limit(process.pid)}")

            idle = open_silent(port, args.idle)
            if len(idle) < args.idle:
                print(f"connection {len(idle) + 1} not accepted within 2 s")
            time.sleep(0.5)
            opened = time.monotonic()
            latencies, unanswered = [], 0
            for _ in range(50):
                try:
                    latencies.append(health_ms(base))
                except OSError:
                    unanswered += 1
                    if unanswered == 3:
                        break
            figures = (f"/health p95 {statistics.quantiles(latencies, n=20)[18]:.1f} ms, max {max(latencies):.1f} ms"
                       if len(latencies) >= 20 else "/health p95 not measured")
            print(f"{len(idle)} silent connections open ({server_sockets(process.pid)} sockets in the server): "
                  f"{figures}, {unanswered} requests unanswered within 10 s")
            time.sleep(max(0.0, 11 - (time.monotonic() - opened)))
            answered = 0
            for connection in idle:
                connection.settimeout(0.01)
                try:
                    answered += connection.recv(64).startswith(b"HTTP/1.1 408")
                except OSError:
                    pass
            print(f"after the 10 s head time-out: {answered} of {len(idle)} answered 408 and closed, "
                  f"{server_sockets(process.pid)} sockets left in the server")
            for connection in idle:
                connection.close()

            before = peak_kb(process.pid)
            start = time.perf_counter()
            with urllib.request.urlopen(base + "/download/files/" + os.path.basename(package), timeout=120) as reply:
                length = int(reply.headers["Content-Length"])
                received = 0
                while chunk := reply.read(1 << 20):
                    received += len(chunk)
            print(f"download of {length >> 20} MB ({received == length and 'complete' or 'SHORT'}) in "
                  f"{time.perf_counter() - start:.1f} s: peak memory {before // 1024} MB before, "
                  f"{peak_kb(process.pid) // 1024} MB after")
        finally:
            process.terminate()
            process.wait(10)


if __name__ == "__main__":
    main()
