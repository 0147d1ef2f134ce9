"""Harness of the Python tests. The library keeps one manager per process and chooses
its backend and clock once, so each scenario runs in an interpreter of its own: run()
gives it a script and returns what the script printed as JSON on its last line."""
import json
import os
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


def cli():
    """The quavix program: QUAVIX_CLI, else the one on PATH, else the test build's."""
    path = os.environ.get("QUAVIX_CLI") or shutil.which("quavix") or str(ROOT / "build/test/tools/quavix/quavix")
    if not os.access(path, os.X_OK):
        pytest.skip(f"the quavix program is not built ({path})")
    return path


def run(script, cwd=None, **env):
    """Runs script in a fresh interpreter (on the virtual backend unless env says
    otherwise) and returns what its last stdout line says in JSON, and the process."""
    full = dict(os.environ, QUAVIX_BACKEND="virtual", **{k: str(v) for k, v in env.items()})
    proc = subprocess.run([sys.executable, "-c", textwrap.dedent(script)], env=full, capture_output=True, text=True,
                          timeout=120, cwd=cwd)
    assert proc.returncode == 0, f"exit {proc.returncode}\n--- stdout\n{proc.stdout}\n--- stderr\n{proc.stderr}"
    lines = proc.stdout.strip().splitlines()
    try:
        return json.loads(lines[-1]) if lines else None, proc
    except json.JSONDecodeError:
        return None, proc


def onsets(samples, rate, threshold=0.05, gap_ms=50):
    """Times (ms) where the sound rises above threshold after gap_ms of being below it."""
    import numpy
    level = numpy.abs(samples.astype(float))
    if level.ndim == 2:
        level = level.max(axis=1)
    loud = numpy.flatnonzero(level > threshold * level.max())
    if loud.size == 0:
        return []
    starts = [loud[0]] + [b for a, b in zip(loud, loud[1:]) if b - a > gap_ms * rate / 1000]
    return [1000.0 * s / rate for s in starts]


@pytest.fixture(scope="session")
def jack_server(tmp_path_factory):
    """A private JACK server (dummy driver, 48000 Hz, 256-frame periods), stopped after
    the session, also when a test fails."""
    script = ROOT / "tests/integration/jack-server"
    if shutil.which("jackd") is None:
        pytest.skip("jackd is not installed (apt-get install jackd2)")
    name = f"quavix-pytest-{os.getpid()}"
    pidfile = tmp_path_factory.mktemp("jack") / "jackd.pid"
    subprocess.run([str(script), "start", name, str(pidfile)], check=True)
    os.environ["JACK_DEFAULT_SERVER"] = name
    yield name
    subprocess.run([str(script), "stop", name, str(pidfile)])
