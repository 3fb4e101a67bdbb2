#!/usr/bin/env python3
"""Round trip page -> extension -> host -> page in headless Chromium over a connected port: the
p50 of GetNonce calls made by the page through the client, once with ScrivaPkcs11 and once with a
host that only echoes, which leaves the browser's and the extension's own share."""
import argparse
import json
import os
import shutil
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "browser"))
import chromiumdriver  # noqa: E402

# Run in the page: an instance and warm-up calls, then blocks of timed calls (milliseconds each).
SETUP = """(async () => {
  await scrivaDemo.client.createInstance();
  for (let i = 0; i < %d; ++i) await scrivaDemo.client.getNonce();
})()"""
BLOCK = """(async () => {
  const times = [];
  for (let i = 0; i < %d; ++i) {
    const start = performance.now();
    await scrivaDemo.client.getNonce();
    times.push(performance.now() - start);
  }
  return times;
})()"""


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def open_page(args, url, manifest, work):
    browser = chromiumdriver.Chromium(work, os.path.join(args.source, "browser", "extension"), manifest,
                                      env={"QT_QPA_PLATFORM": "offscreen"})
    browser.extension_worker("miihkjngkbcjkmefbgeecganmceikcjc")
    browser.open(url)
    browser.evaluate("scrivaDemo.ready")
    browser.evaluate(SETUP % args.warmup)
    return browser


def measure(args, url, hosts, work):
    """Both browsers stay open and take turns in blocks, so that a change in the machine's load
    falls on both alike."""
    browsers = {}
    try:
        for name, manifest in hosts.items():
            browsers[name] = open_page(args, url, manifest, os.path.join(work, name.replace(" ", "-")))
        results = {name: [] for name in hosts}
        rounds = 10
        for block in range(rounds):
            for name, browser in browsers.items():
                count = args.calls // rounds + (1 if block < args.calls % rounds else 0)
                results[name] += browser.evaluate(BLOCK % count, timeout=600)
        return results
    finally:
        for browser in browsers.values():
            browser.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--echo-host", required=True)
    parser.add_argument("--calls", type=int, default=200)
    parser.add_argument("--warmup", type=int, default=20)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="scriva-bench-browser-")
    manifest = os.path.join(args.build, "share", "scriva", "native-messaging-hosts", "chromium",
                            chromiumdriver.HOST_NAME + ".json")
    with open(manifest) as file:
        echo = json.load(file)
    echo["path"] = os.path.abspath(args.echo_host)
    echo_manifest = os.path.join(work, "echo.json")
    with open(echo_manifest, "w") as file:
        json.dump(echo, file)

    server, url = chromiumdriver.serve_demo(args.source, args.build, ["none"])
    try:
        results = measure(args, url, {"ScrivaPkcs11": manifest, "echo host": echo_manifest}, work)
    finally:
        server.terminate()
        server.wait()
        shutil.rmtree(work, ignore_errors=True)

    print(f"GetNonce round trip page -> extension -> host -> page, {args.calls} calls over one connected port:")
    for name, times in results.items():
        print(f"  {name:13s} p50 {percentile(times, 0.5):7.3f} ms   p90 {percentile(times, 0.9):7.3f} ms   "
              f"min {min(times):7.3f} ms")
    share = percentile(results["echo host"], 0.5)
    total = percentile(results["ScrivaPkcs11"], 0.5)
    print(f"  the browser's own share (echo host) is {share:.3f} ms of the host's {total:.3f} ms p50")


if __name__ == "__main__":
    main()
