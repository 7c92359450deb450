"""Runs GUI programs in alternating rounds and times them to "ready": the
window is mapped, then 300 ms pass without the process using CPU."""
import os
import shutil
import statistics
import subprocess
import sys
import time

TICK = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def rss_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def run(name, command, bank, work, shot=None):
    config = os.path.join(work, f"config-{name}")
    shutil.rmtree(config, ignore_errors=True)
    os.makedirs(config)
    env = dict(os.environ, XDG_CONFIG_HOME=config, HOME=config)
    start = time.monotonic()
    p = subprocess.Popen(command.split() + [bank], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--pid", str(p.pid)],
                       stdout=subprocess.DEVNULL, timeout=120, check=True)
        last_cpu, last_change = cpu_seconds(p.pid), time.monotonic()
        while time.monotonic() - last_change < 0.3:
            time.sleep(0.01)
            now = cpu_seconds(p.pid)
            if now != last_cpu:
                last_cpu, last_change = now, time.monotonic()
        wall = last_change - start
        rss = rss_mb(p.pid)
        if shot:
            subprocess.run(["import", "-window", "root", shot], check=False)
        return wall, last_cpu, rss
    finally:
        p.kill()
        p.wait()


def main():
    work, shots, rounds, bank = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
    programs = [arg.split("=", 1) for arg in sys.argv[5:]]
    for name, command in programs:  # untimed warm-up
        run(name, command, bank, work)
    results = {name: [] for name, _ in programs}
    for r in range(rounds):
        for name, command in programs:
            shot = os.path.join(shots, f"startup-{name}.png") if r == rounds - 1 else None
            results[name].append(run(name, command, bank, work, shot))
    print(f"{os.path.basename(bank)}, {rounds} rounds, median [min-max]")
    print(f"{'program':<14} {'wall s':>22} {'CPU s':>22} {'RSS MB':>8}")
    medians = {}
    for name, runs in results.items():
        wall = [x[0] for x in runs]
        cpu = [x[1] for x in runs]
        medians[name] = (statistics.median(wall), statistics.median(cpu))
        print(f"{name:<14} {statistics.median(wall):8.3f} [{min(wall):.3f}-{max(wall):.3f}] "
              f"{statistics.median(cpu):8.3f} [{min(cpu):.3f}-{max(cpu):.3f}] {statistics.median(x[2] for x in runs):8.0f}")
    names = [n for n, _ in programs]
    if len(names) == 2:
        a, b = medians[names[0]], medians[names[1]]
        print(f"ratio {names[0]}/{names[1]}: wall {a[0] / b[0]:.2f}, CPU {a[1] / b[1]:.2f}")


if __name__ == "__main__":
    main()
