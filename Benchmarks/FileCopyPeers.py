#!/usr/bin/env python3
"""Whole-program copies through corvex beside their peers, measured in the same run.

Local: `corvex cp SRC :DST` to a corvexd on this machine beside `cp` (`cp -r` for the tree).
Over ssh (--ssh, as root): a loopback sshd of its own with a throwaway user; `corvex --ssh`
beside `scp` and `rsync` over the same sshd. One big file (--big-mib, default 1024) and a tree
of small files (--files, default 20000, each 0 to 64 KiB). Each copy runs --runs times into a
fresh folder (best time kept; the local big file takes --big-runs turns of cp and corvex, and
the medians count), timed to the end of the program and again with a `sync` after it, so
deferred write-back doesn't flatter anyone. Peak memory: the client's from rusage, the
daemon's VmHWM. Prints one JSON object; the load average is part of it.
"""
import argparse, json, os, pwd, random, shutil, signal, socket, statistics, subprocess, sys, tempfile, time

def make_corpus(root, big_mib, files):
    rng = random.Random(42)
    block = rng.randbytes(1 << 20)
    with open(os.path.join(root, "big"), "wb") as out:
        for _ in range(big_mib):
            out.write(block)
    tree = os.path.join(root, "tree")
    for index in range(files):
        folder = os.path.join(tree, "d%03d" % (index // 200))
        os.makedirs(folder, exist_ok=True)
        size = rng.randrange(0, 64 * 1024 + 1)
        with open(os.path.join(folder, "f%05d" % index), "wb") as out:
            out.write(block[:size])

def timed(argv, env=None):
    # /usr/bin/time reports the program's own peak, not that of the interpreter it forked from.
    with tempfile.NamedTemporaryFile("r") as peak:
        start = time.monotonic()
        child = subprocess.run(["/usr/bin/time", "-f", "%M %U %S", "-o", peak.name] + argv, env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        plain = time.monotonic() - start
        subprocess.run(["sync"])
        synced = time.monotonic() - start
        if child.returncode != 0:
            raise SystemExit("failed: %s\n%s" % (" ".join(argv), child.stderr.decode(errors="replace")))
        # The last line: time writes a note above it when the program was signalled.
        rss, user, system = peak.read().splitlines()[-1].split()
        return plain, synced, int(rss), float(user) + float(system)

# ext4 without a journal passes over inodes freed in the last minute (minutes while their table
# is unwritten) each time it allocates one, so a run that follows the removal of an earlier run's
# tree pays for it by chance. Every run writes into a folder of its own; all are removed at the
# end, after the measuring.
def best(runs, make_argv, destination):
    results = []
    for run in range(runs):
        folder = "%s-%d" % (destination, run)
        os.makedirs(folder)
        subprocess.run(["sync"])
        results.append(timed(make_argv(folder)))
    plain = min(r[0] for r in results)
    synced = min(r[1] for r in results)
    return {"seconds": round(plain, 3), "seconds_with_sync": round(synced, 3), "peak_rss_kib": max(r[2] for r in results)}

# The local big file is decided by the disk, whose speed wanders from run to run: cp and corvex
# take turns, each run into a folder of its own, and the median of each decides.
def interleaved(runs, argvs, destination):
    results = {name: [] for name in argvs}
    for run in range(runs):
        for name, make_argv in argvs.items():
            folder = "%s-%s-%d" % (destination, name, run)
            os.makedirs(folder)
            subprocess.run(["sync"])
            results[name].append(timed(make_argv(folder)))
    out = {}
    for name, runs_of in results.items():
        out[name] = {"seconds": round(statistics.median(r[0] for r in runs_of), 3),
                     "seconds_with_sync": round(statistics.median(r[1] for r in runs_of), 3),
                     "best_seconds": round(min(r[0] for r in runs_of), 3),
                     "best_seconds_with_sync": round(min(r[1] for r in runs_of), 3),
                     "runs": len(runs_of), "peak_rss_kib": max(r[2] for r in runs_of)}
    return out

def vm_hwm(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return None

def serve_daemon(corvexd, runtime):
    env = dict(os.environ, CORVEXD_RUNTIME_DIR=runtime)
    env.pop("CORVEXD_EPHEMERAL", None)
    daemon = subprocess.Popen([corvexd, "serve"], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    path = os.path.join(runtime, "corvexd.sock")
    for _ in range(500):
        try:
            with socket.socket(socket.AF_UNIX) as probe:
                probe.connect(path)
                return daemon, path
        except OSError:
            time.sleep(0.02)
    raise SystemExit("corvexd did not come up")

def ratio(peer, ours, key="seconds"):
    return round(peer[key] / ours[key], 3) if ours[key] else None

def local_cases(args, work, corvex, socket_path):
    out = {}
    for name, source, peer in (("big", "big", ["cp"]), ("tree", "tree", ["cp", "-r"])):
        if (name == "tree" and args.files == 0) or "local-" + name not in args.cases:
            continue
        src = os.path.join(work, source)
        ours_argv = lambda folder: [corvex, "--socket", socket_path, "cp", "--streams", str(args.streams), src, ":" + folder]
        if name == "big":
            both = interleaved(args.big_runs, {"cp": lambda folder: peer + [src, folder], "corvex": ours_argv},
                               os.path.join(work, "dst-big"))
            cp, ours = both["cp"], both["corvex"]
        else:
            cp = best(args.runs, lambda folder: peer + [src, folder], os.path.join(work, "dst-cp-" + name))
            ours = best(args.runs, ours_argv, os.path.join(work, "dst-corvex-" + name))
        out[name] = {"cp": cp, "corvex": ours, "speed_vs_cp": ratio(cp, ours),
                     "speed_vs_cp_with_sync": ratio(cp, ours, "seconds_with_sync")}
    return out

def ssh_setup(work):
    user = "corvexbench"
    try:
        pwd.getpwnam(user)
    except KeyError:
        subprocess.run(["useradd", "-m", "-s", "/bin/sh", user], check=True)
    # A locked account is refused even a key login without PAM; "*" unlocks it with no password.
    subprocess.run(["usermod", "-p", "*", user], check=True)
    entry = pwd.getpwnam(user)
    folder = os.path.join(work, "ssh")
    os.makedirs(folder)
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder + "/host"], check=True)
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder + "/id"], check=True)
    dot = os.path.join(entry.pw_dir, ".ssh")
    os.makedirs(dot, exist_ok=True)
    shutil.copy(folder + "/id.pub", dot + "/authorized_keys")
    for path in (dot, dot + "/authorized_keys"):
        os.chown(path, entry.pw_uid, entry.pw_gid)
    os.chmod(dot, 0o700)
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    with open(folder + "/sshd_config", "w") as config:
        config.write("Port %d\nListenAddress 127.0.0.1\nHostKey %s/host\nUsePAM no\nPasswordAuthentication no\n"
                     "PubkeyAuthentication yes\nStrictModes no\nPidFile %s/sshd.pid\nSubsystem sftp internal-sftp\n"
                     % (port, folder, folder))
    os.makedirs("/run/sshd", exist_ok=True)
    sshd = subprocess.Popen(["/usr/sbin/sshd", "-D", "-f", folder + "/sshd_config"])
    with open(folder + "/ssh_config", "w") as config:
        config.write("Host 127.0.0.1\n  Port %d\n  IdentityFile %s/id\n  StrictHostKeyChecking no\n"
                     "  UserKnownHostsFile /dev/null\n  LogLevel ERROR\n" % (port, folder))
    time.sleep(0.5)
    return sshd, user, entry, folder + "/ssh_config"

def ssh_cases(args, work, corvex):
    sshd, user, entry, config = ssh_setup(work)
    target = user + "@127.0.0.1"
    home = os.path.join(work, "h")
    os.makedirs(home)
    # corvex runs "ssh" from PATH; this one brings the benchmark's own configuration.
    wrapper = os.path.join(work, "sshbin")
    os.makedirs(wrapper)
    with open(os.path.join(wrapper, "ssh"), "w") as script:
        script.write('#!/bin/sh\nexec /usr/bin/ssh -F %s "$@"\n' % config)
    os.chmod(os.path.join(wrapper, "ssh"), 0o755)
    env = dict(os.environ, HOME=home, CORVEX_SSH_CONFIG=config, PATH=wrapper + ":" + os.environ["PATH"])
    # The daemon of this build, readable by the throwaway user, instead of an installed one.
    daemon_copy = os.path.join(work, "corvexd")
    shutil.copy(os.path.join(args.bin, "corvexd"), daemon_copy)
    os.chmod(work, 0o755)
    os.chmod(daemon_copy, 0o755)
    ssh_args = ["--ssh", target, "--remote-command", daemon_copy + " bridge"]
    remote = lambda name: os.path.join(entry.pw_dir, name)
    try:
        subprocess.run([corvex] + ssh_args + ["hello"], env=env, check=True, stdout=subprocess.DEVNULL)
        out = {}
        for name in ("big", "tree"):
            if "ssh-" + name not in args.cases:
                continue
            src = os.path.join(work, name)
            def fresh(folder):
                os.makedirs(remote(folder))
                os.chown(remote(folder), entry.pw_uid, entry.pw_gid)
                subprocess.run(["sync"])
            case = {}
            # corvex puts AES-GCM first where the processor has AES instructions; the "-gcm" peers
            # run scp and rsync with that cipher too, so the cipher alone doesn't decide.
            gcm = "aes128-gcm@openssh.com"
            peers = {"scp": lambda d: ["scp", "-q", "-r", "-F", config, src, "%s:%s/" % (target, remote(d))],
                     "scp-gcm": lambda d: ["scp", "-q", "-r", "-c", gcm, "-F", config, src, "%s:%s/" % (target, remote(d))]}
            if shutil.which("rsync"):
                peers["rsync"] = lambda d: ["rsync", "-a", "-e", "ssh -F " + config, src, "%s:%s/" % (target, remote(d))]
                peers["rsync-gcm"] = lambda d: ["rsync", "-a", "-e", "ssh -c %s -F %s" % (gcm, config), src,
                                                "%s:%s/" % (target, remote(d))]
            peers["corvex"] = lambda d: [corvex] + ssh_args + ["cp", "--streams", str(args.streams), src, ":" + remote(d)]
            for peer in [name for name in args.peers if name in peers]:
                argv = peers[peer]
                runs = []
                for run in range(args.runs):
                    folder = "dst-%s-%s-%d" % (peer, name, run)
                    fresh(folder)
                    child_env = env if peer == "corvex" else None
                    runs.append(timed(argv(folder), child_env))
                # corvex syncs each file before placing it and the peers don't: the time with a
                # sync after each program is the fair comparison, and both are reported.
                case[peer] = {"seconds": round(min(r[0] for r in runs), 3),
                              "seconds_with_sync": round(min(r[1] for r in runs), 3),
                              "peak_rss_kib": max(r[2] for r in runs),
                              "client_cpu_seconds": round(min(r[3] for r in runs), 2)}
            for peer in list(case):
                if peer != "corvex" and "corvex" in case:
                    case["speed_vs_" + peer] = ratio(case[peer], case["corvex"])
                    case["speed_vs_" + peer + "_with_sync"] = ratio(case[peer], case["corvex"], "seconds_with_sync")
            out[name] = case
        return out
    finally:
        subprocess.run(["pkill", "-u", user], stderr=subprocess.DEVNULL)
        for folder in os.listdir(entry.pw_dir):
            if folder.startswith("dst-"):
                shutil.rmtree(remote(folder), ignore_errors=True)
        sshd.send_signal(signal.SIGTERM)
        sshd.wait()

def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--bin", default=os.path.join(here, "..", "build", "release", "bin"))
    parser.add_argument("--big-mib", type=int, default=1024)
    parser.add_argument("--files", type=int, default=20000)
    parser.add_argument("--runs", type=int, default=2)
    parser.add_argument("--big-runs", type=int, default=5, help="local big file: runs of each, median reported")
    parser.add_argument("--streams", type=int, default=4)
    parser.add_argument("--ssh", action="store_true")
    parser.add_argument("--cases", default="local-big,local-tree,ssh-big,ssh-tree",
                        help="comma-separated: local-big, local-tree, ssh-big, ssh-tree")
    parser.add_argument("--peers", default="scp,rsync,corvex",
                        help="over ssh: which of scp, scp-gcm, rsync, rsync-gcm, corvex run, in this order")
    args = parser.parse_args()
    args.peers = args.peers.split(",") # in the order given
    args.cases = set(args.cases.split(","))
    corvex, corvexd = os.path.join(args.bin, "corvex"), os.path.join(args.bin, "corvexd")
    work = tempfile.mkdtemp(prefix="corvex-copy-", dir=os.environ.get("TMPDIR", "/var/tmp"))
    result = {"load_before": os.getloadavg(), "big_mib": args.big_mib, "files": args.files}
    daemon = None
    try:
        make_corpus(work, args.big_mib, args.files)
        runtime = os.path.join(work, "run")
        os.makedirs(runtime, mode=0o700)
        daemon, socket_path = serve_daemon(corvexd, runtime)
        result["local"] = local_cases(args, work, corvex, socket_path)
        result["local"]["daemon_peak_rss_kib"] = vm_hwm(daemon.pid)
        if args.ssh:
            result["ssh"] = ssh_cases(args, work, corvex)
    finally:
        if daemon:
            daemon.terminate()
            daemon.wait()
        shutil.rmtree(work, ignore_errors=True)
    result["load_after"] = os.getloadavg()
    json.dump(result, sys.stdout, indent=2)
    print()

if __name__ == "__main__":
    main()
