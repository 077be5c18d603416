#!/usr/bin/python3
"""A fleet probed through `fetchlet serve`: Debian's prometheus discovers 50
loopback targets from a file, some answering, some slow, some refusing and
one that never answers, and scrapes /probe for each with check_tcp and
check_http. Every target's probe_success must be its server's state, and the
never-answering one's checks must end at their deadline.
Usage: probe_fleet.py FETCHLET_BINARY EXIT_STATUS_BINARY"""
import json
import os
import re
import signal
import socket
import socketserver
import subprocess
import sys
import threading
import time

import real_clients as rc

EXIT_STATUS = sys.argv[2]
PLUGINS = "/usr/lib/nagios/plugins"

CONFIG = """\
listen: 127.0.0.1:{port}
jitter: 0
max_concurrent_probes: 64
probe_timeout_offset: 500ms
modules:
  - name: tcp
    kind: os
    format: nagios
    timeout: 10s
    properties: {{command: '{exit_status} {plugins}/check_tcp -H ${{target}} -p ${{port}}'}}
    params: {{port: {{pattern: '[0-9]{{1,5}}'}}}}
  - name: http
    kind: os
    format: nagios
    timeout: 10s
    properties: {{command: '{exit_status} {plugins}/check_http -I ${{target}} -p ${{port}}'}}
    params: {{port: {{pattern: '[0-9]{{1,5}}'}}}}
"""

JOB = """\
  - job_name: {module}
    metrics_path: /probe
    params: {{module: [{module}], port: ['{port}']}}
    file_sd_configs: [{{files: ['{file}'], refresh_interval: 1s}}]
    relabel_configs:
      - {{source_labels: [__address__], target_label: __param_target}}
      - {{source_labels: [__param_target], target_label: instance}}
      - {{target_label: __address__, replacement: '127.0.0.1:{serve}'}}
"""

# Per module, how many targets of each kind; 50 in all.
FLEET = {"http": {"http": 10, "slow": 5, "refused": 9, "never": 1},
         "tcp": {"tcp": 15, "refused": 10}}
PASSES = {"http": 1, "slow": 1, "tcp": 1, "refused": 0, "never": 0}


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        kind = self.server.kind
        if kind == "tcp":
            return
        if kind == "slow":
            time.sleep(0.3)
        self.request.recv(4096)
        self.request.sendall(b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok")


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


def start_targets(port):
    """The fleet's servers; returns {module: [(address, kind)]} and what to
    close."""
    fleet, held, last = {}, [], 1
    for module, kinds in FLEET.items():
        for kind, count in kinds.items():
            for _ in range(count):
                last += 1
                address = "127.0.0.%d" % last
                fleet.setdefault(module, []).append((address, kind))
                if kind == "never":  # accepted by the kernel, never read
                    sock = socket.socket()
                    sock.bind((address, port))
                    sock.listen(64)
                    held.append(sock)
                elif kind != "refused":
                    server = Server((address, port), Handler)
                    server.kind = kind
                    threading.Thread(target=server.serve_forever, daemon=True).start()
                    held.append(server)
    return fleet, held


def write_prometheus(fleet, port, serve_port):
    jobs = ""
    for module, targets in fleet.items():
        path = os.path.join(rc.WORK, module + ".json")
        with open(path, "w") as f:
            json.dump([{"targets": [a for a, _ in targets]}], f)
        jobs += JOB.format(module=module, port=port, file=path, serve=serve_port)
    path = os.path.join(rc.WORK, "prometheus.yml")
    with open(path, "w") as f:
        f.write("global: {scrape_interval: 2s, scrape_timeout: 2s}\n"
                "scrape_configs:\n" + jobs)
    return path


def check_fleet(prom, fleet):
    expected = {a: PASSES[kind] for targets in fleet.values() for a, kind in targets}

    def got():
        results = rc.query(prom, "probe_success")
        values = {r["metric"]["instance"]: int(float(r["value"][1])) for r in results}
        return values if len(values) == len(expected) else None
    values = rc.poll("50 probes", got, limit=40)
    assert values == expected, {a: v for a, v in values.items() if expected[a] != v}


def main():
    port, serve_port, prom_port = rc.free_port(), rc.free_port(), rc.free_port()
    fleet, held = start_targets(port)
    never = [a for a, kind in fleet["http"] if kind == "never"][0]
    config = os.path.join(rc.WORK, "serve.yaml")
    with open(config, "w") as f:
        f.write(CONFIG.format(port=serve_port, exit_status=EXIT_STATUS,
                              plugins=PLUGINS))
    processes = []
    try:
        processes.append(subprocess.Popen([rc.FETCHLET, "serve", "--config", config,
                                           "--log-level", "error"]))
        base = "http://127.0.0.1:%d" % serve_port
        rc.poll("serve", lambda: rc._ok(base + "/healthz"))
        prom = "http://127.0.0.1:%d" % prom_port
        processes.append(subprocess.Popen(
            ["prometheus", "--config.file", write_prometheus(fleet, port, serve_port),
             "--storage.tsdb.path", os.path.join(rc.WORK, "data"),
             "--web.listen-address", "127.0.0.1:%d" % prom_port,
             "--log.level", "warn"]))
        check_fleet(prom, fleet)
        timeouts = re.search(r'fetchlet_probe_failures_total\{module="http",'
                             r'kind="timeout"\} (\d+)', rc.get(base + "/metrics"))
        assert timeouts and int(timeouts.group(1)) > 0
        prometheus = processes.pop()
        prometheus.send_signal(signal.SIGTERM)
        prometheus.wait(timeout=10)
        # Its last probe ends within its 1.5 s deadline, with every process.
        rc.poll("never-answering checks ended",
                lambda: rc.processes_with(never + "\0") == 0, limit=5)
        print("probe fleet: all checks passed")
    finally:
        for process in reversed(processes):
            process.send_signal(signal.SIGTERM)
            process.wait(timeout=10)
        for item in held:
            item.close() if isinstance(item, socket.socket) else item.shutdown()
        rc.shutil.rmtree(rc.WORK, ignore_errors=True)


if __name__ == "__main__":
    main()
