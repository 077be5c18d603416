#!/usr/bin/python3
"""Real scrapers against `fetchlet serve`: Debian's prometheus scrapes it,
promtool lints the 0.0.4 text, and python3-prometheus-client's OpenMetrics
parser reads the OpenMetrics text. Among the collectors is one of each
output format. Usage: real_clients.py FETCHLET_BINARY EXIT_STATUS_BINARY"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

from prometheus_client.openmetrics.parser import text_string_to_metric_families

FETCHLET = sys.argv[1]
EXIT_STATUS = sys.argv[2]
WORK = tempfile.mkdtemp(prefix="fetchlet-real-clients-")
FLAG = os.path.join(WORK, "flaky")
HOSTILE = os.path.join(WORK, "hostile.sh")
# A table shaped like df -P's, so the test never depends on what the machine
# mounts.
FILESYSTEMS = os.path.join(WORK, "filesystems.txt")
OM = "application/openmetrics-text; version=1.0.0"
# What the format collectors read: a script printing Prometheus text, a
# Nagios plug-in, and findmnt on a mount table in the kernel's format.
SCRIPTED = os.path.join(WORK, "scripted.sh")
# Prints families that other collectors configure: dropped and counted.
CLASHING = os.path.join(WORK, "clashing.sh")
CHECK = os.path.join(WORK, "check_disk.sh")
MOUNTINFO = os.path.join(WORK, "mountinfo")
FORMATS = ("scripted_", "nagios_check_", "mount_")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def poll(what, check, limit=30.0):
    end = time.monotonic() + limit
    while True:
        result = check()
        if result or time.monotonic() > end:
            if not result:
                raise AssertionError("timed out waiting for " + what)
            return result
        time.sleep(0.2)


def get(url, accept=None):
    request = urllib.request.Request(url)
    if accept:
        request.add_header("Accept", accept)
    with urllib.request.urlopen(request, timeout=10) as response:
        return response.read().decode("utf-8")


def write_hostile_script():
    big = "v" * (1 << 20)
    with open(HOSTILE, "wb") as f:
        f.write(b"#!/bin/sh\nprintf 'a\\200\\377b 1\\n'\nprintf 'c\\rd 2\\n'\n")
        f.write(b"printf '%s\\n' 'q\"u\\\\o 3' 'dup 4' 'dup 5'\n")
        f.write(b"printf '%s 6\\n' '" + big.encode() + b"'\n")
    os.chmod(HOSTILE, 0o755)


def write_format_inputs():
    scripts = {
        SCRIPTED: "cat <<'END'\n"
        "# HELP app_requests_total Requests served.\n"
        "# TYPE app_requests_total counter\n"
        'app_requests_total{code="200"} 1027\n'
        'app_requests_total{code="500"} 3 1700000000000\n'
        "# TYPE app_latency_seconds histogram\n"
        'app_latency_seconds_bucket{le="0.1"} 5\n'
        'app_latency_seconds_bucket{le="1"} 9\n'
        'app_latency_seconds_bucket{le="+Inf"} 10\n'
        "app_latency_seconds_sum 3.5\n"
        "app_latency_seconds_count 10\n"
        "app_temperature_celsius 21.5\n"
        "END\n",
        CLASHING: "echo 'fs_size_bytes 1'\necho 'generated_value 2'\n",
        CHECK: "echo 'DISK WARNING - /srv at 85% | /srv=85%;80;90;0;100 "
        "time=15ms;;@10:20'\nexit 1\n",
    }
    for path, body in scripts.items():
        with open(path, "w") as f:
            f.write("#!/bin/sh\n" + body)
        os.chmod(path, 0o755)
    with open(MOUNTINFO, "w") as f:
        f.write("21 1 254:0 / / rw - ext4 /dev/vdz1 rw\n"
                "22 21 0:5 / /proc rw - proc proc rw\n"
                "23 21 254:16 / /srv rw - xfs /dev/vdz2 rw\n")


CONFIG = """\
listen: 127.0.0.1:{port}
max_concurrent: 2
jitter: 0
collectors:
  - name: filesystem
    kind: oslinetoken
    properties:
      command: /bin/cat {filesystems}
      delimiter: " "
    interval: 1s
    table: {{skip_rows: 1, drop_empty_fields: true}}
    metrics:
      - name: fs_size_bytes
        help: Size of the file system, from df -P.
        unit: bytes
        value: {{column: 1, scale: 1024}}
        labels: {{device: 0, mountpoint: 5}}
  - name: load
    kind: os
    properties: {{command: /usr/bin/uptime, ENVLC_ALL: C}}
    on_scrape: {{cache_for: 1s}}
    regex: 'load average: ([0-9.]+), ([0-9.]+), ([0-9.]+)'
    metrics:
      - {{name: host_load1, help: 1-minute load average., value: {{column: 1}}}}
  - name: flaky
    kind: os
    properties: {{command: /bin/cat {flag}}}
    interval: 1s
    regex: '^([0-9]+)'
    metrics:
      - {{name: flaky_value, help: A value that can stop parsing., value: {{column: 1}}}}
  - name: generated
    kind: oslinetoken
    properties: {{command: /usr/bin/seq 1 1000, delimiter: " "}}
    interval: 1s
    metrics:
      - name: generated_value
        help: One series per line.
        value: {{column: 0}}
        labels: {{line: 0}}
  - name: hostile
    kind: oslinetoken
    properties: {{command: {hostile}, delimiter: " "}}
    interval: 1s
    metrics:
      - name: hostile_value
        help: Whatever the script printed.
        value: {{column: 1}}
        labels: {{text: 0}}
  - name: scripted
    kind: os
    properties: {{command: {scripted}}}
    interval: 1s
    format: prometheus
    prefix: scripted_
    labels: {{site: lab}}
  - name: clashing
    kind: os
    properties: {{command: {clashing}}}
    interval: 1s
    format: prometheus
  - name: check
    kind: os
    properties: {{command: {exit_status} {check}}}
    interval: 1s
    format: nagios
  - name: mounts
    kind: os
    properties: {{command: "/usr/bin/findmnt -J -b -F {mountinfo} -o TARGET,FSTYPE,PARENT"}}
    interval: 1s
    format: json
    rows: /filesystems
    children: /children
    metrics:
      - name: mount_parent_id
        help: The mount that holds this one.
        value: {{pointer: /parent}}
        labels: {{target: /target, fstype: /fstype}}
"""


def check_parsers(base):
    text = get(base + "/metrics")
    lint = subprocess.run(["promtool", "check", "metrics"], input=text.encode(),
                          capture_output=True)
    assert lint.returncode == 0 and not lint.stdout and not lint.stderr, (
        lint.stdout + lint.stderr).decode(errors="replace")[:2000]
    families = list(text_string_to_metric_families(get(base + "/metrics", OM)))
    names = {f.name: f for f in families}
    assert len(names["generated_value"].samples) == 1000
    assert names["fs_size_bytes"].unit == "bytes"
    sizes = {s.labels["mountpoint"]: s.value
             for s in names["fs_size_bytes"].samples}
    assert sizes == {"/": 1024000000.0, "/srv": 20971520.0}, sizes
    assert names["fetchlet_collector_failures"].type == "counter"
    assert names["fetchlet_build"].type == "info"
    assert names["scripted_app_latency_seconds"].type == "histogram"
    assert names["nagios_check_state"].type == "stateset"
    assert names["mount_parent_id"].type == "gauge"


def test_samples(config, collector):
    out = subprocess.run([FETCHLET, "test", "--config", config, "--json",
                          "--collector", collector],
                         capture_output=True).stdout
    return json.loads(out.splitlines()[0])["samples"]


def expected_exposition(config):
    return {s["labels"]["line"]: s["value"]
            for s in test_samples(config, "generated")}


def series_key(name, labels):
    return (name, tuple(sorted(labels.items())))


def expected_formats(config):
    """Every sample of the format collectors, as fetchlet test shows it."""
    expected = {}
    for collector in ("scripted", "check", "mounts"):
        for s in test_samples(config, collector):
            expected[series_key(s["name"], s["labels"])] = float(s["value"])
    assert len(expected) > 20, expected
    return expected


def scraped_formats(prom):
    """The same series as Prometheus stored them."""
    got = {}
    for prefix in FORMATS:
        for r in query(prom, '{__name__=~"%s.*"}' % prefix):
            labels = dict(r["metric"])
            name = labels.pop("__name__")
            del labels["job"], labels["instance"]
            got[series_key(name, labels)] = float(r["value"][1])
    return got


def query(prom, expr):
    try:
        data = json.loads(get(prom + "/api/v1/query?query=" +
                              urllib.parse.quote(expr)))
    except OSError:  # not listening yet
        return []
    return data["data"]["result"]


def main():
    write_hostile_script()
    write_format_inputs()
    with open(FLAG, "w") as f:
        f.write("42\n")
    with open(FILESYSTEMS, "w") as f:
        f.write("Filesystem     1024-blocks  Used Available Capacity Mounted on\n"
                "/dev/vda1         1000000 250000    750000      25% /\n"
                "/dev/vdb1           20480  20480         0     100% /srv data\n")
    serve_port, prom_port = free_port(), free_port()
    config = os.path.join(WORK, "serve.yaml")
    with open(config, "w") as f:
        f.write(CONFIG.format(port=serve_port, flag=FLAG, hostile=HOSTILE,
                              filesystems=FILESYSTEMS, scripted=SCRIPTED,
                              exit_status=EXIT_STATUS, check=CHECK, clashing=CLASHING,
                              mountinfo=MOUNTINFO))
    with open(os.path.join(WORK, "prometheus.yml"), "w") as f:
        f.write("global: {scrape_interval: 1s, scrape_timeout: 1s}\n"
                "scrape_configs:\n  - job_name: fetchlet\n"
                "    static_configs: [{targets: ['127.0.0.1:%d']}]\n" % serve_port)
    expected = expected_exposition(config)
    formats = expected_formats(config)
    processes = []
    try:
        serve = subprocess.Popen([FETCHLET, "serve", "--config", config,
                                  "--log-level", "error"])
        processes.append(serve)
        base = "http://127.0.0.1:%d" % serve_port
        poll("serve", lambda: _ok(base + "/healthz"))
        poll("first evaluations", lambda: all(
            name in get(base + "/metrics") for name in (
                'generated_value{line="1000"}', "scripted_app_latency",
                "nagios_check_state", "mount_parent_id",
                'fetchlet_collector_up{collector="clashing"} 1')))
        check_parsers(base)
        prom = "http://127.0.0.1:%d" % prom_port
        processes.append(subprocess.Popen(
            ["prometheus", "--config.file", os.path.join(WORK, "prometheus.yml"),
             "--storage.tsdb.path", os.path.join(WORK, "data"),
             "--web.listen-address", "127.0.0.1:%d" % prom_port,
             "--log.level", "warn"]))
        poll("target up", lambda: query(prom, "up") and
             query(prom, "up")[0]["value"][1] == "1")
        got = poll("generated values", lambda: len(
            query(prom, "generated_value")) == 1000 and query(prom, "generated_value"))
        assert {r["metric"]["line"]: float(r["value"][1]) for r in got} == expected
        scraped = poll("format series", lambda: len(scraped_formats(prom)) ==
                       len(formats) and scraped_formats(prom))
        assert scraped == formats, (scraped, formats)
        poll("clashing families counted", lambda: query(
            prom, 'fetchlet_collector_duplicate_series_total{collector="clashing"} > 0'))
        meta = json.loads(get(prom + "/api/v1/metadata"))["data"]
        assert meta["fs_size_bytes"][0]["type"] == "gauge", meta["fs_size_bytes"]
        assert meta["fs_size_bytes"][0]["unit"] == "bytes", meta["fs_size_bytes"]
        assert meta["fetchlet_collector_failures"][0]["type"] == "counter"
        poll("hostile series", lambda: query(prom, "hostile_value"))
        with open(FLAG, "w") as f:
            f.write("not a number\n")
        poll("flaky gone", lambda: not query(prom, "flaky_value") and query(
            prom, 'fetchlet_collector_up{collector="flaky"} == 0'))
        assert query(prom, "up")[0]["value"][1] == "1"
        print("real clients: all checks passed")
    finally:
        for process in reversed(processes):
            process.send_signal(signal.SIGTERM)
            process.wait(timeout=10)
        shutil.rmtree(WORK, ignore_errors=True)


def processes_with(marker):
    count = 0
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/cmdline" % pid, "rb") as f:
                count += marker.encode() in f.read()
        except OSError:
            pass
    return count


def _ok(url):
    try:
        return get(url) == "ok\n"
    except OSError:
        return False


if __name__ == "__main__":
    main()
