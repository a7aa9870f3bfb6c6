#!/usr/bin/env python3
"""Detection benchmark driver; see run.sh beside this file for the usage."""
import argparse
import collections
import glob
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

# Language of a sample by its suffix; the directory name decides otherwise.
LANGUAGES = {
    "PHP": "php php3 php4 php5 php7 php8 phtml pht phar inc",
    "JSP": "jsp jspx jspf",
    "ASP": "asp asa cer",
    "ASPX": "aspx ashx asmx ascx asax svc",
    "CFM": "cfm cfml cfc",
    "PERL": "pl pm cgi",
    "PYTHON": "py",
}
BY_SUFFIX = {s: lang for lang, suffixes in LANGUAGES.items() for s in suffixes.split()}


def language(path, root):
    name = os.path.basename(path)
    if "." in name:
        lang = BY_SUFFIX.get(name.rsplit(".", 1)[1].lower())
        if lang:
            return lang
    top = os.path.relpath(path, root).split(os.sep)[0]
    return BY_SUFFIX.get(top.lower(), top.upper() if top != os.path.basename(path) else "OTHER")


def files_of(root):
    out = []
    for d, _, names in os.walk(root):
        for n in names:
            p = os.path.join(d, n)
            if os.path.isfile(p) and not os.path.islink(p):
                out.append(p)
    return out


def sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


class Install:
    """A throwaway copy of the staged tree with a policy made for measuring."""

    def __init__(self, agent, rules, work):
        stage = os.path.dirname(os.path.dirname(os.path.abspath(agent)))
        self.dir = os.path.join(work, "install") + "/"
        shutil.copytree(stage, self.dir, symlinks=True,
                        ignore=shutil.ignore_patterns("upload", "log", "run"))
        for sub in ("log", "run", "data/upload", "data/webshell", "etc"):
            os.makedirs(self.dir + sub, exist_ok=True)
        with open(self.dir + "etc/agent.properties", "w") as f:
            f.write("report.upload_max_bytes = 1073741824\nreport.events_max_bytes = 0\n")
        self.agent = os.path.join(self.dir, "bin", os.path.basename(agent))
        self.rules = os.path.abspath(rules)
        self.policy = os.path.join(work, "policy.json")
        content = {
            "customize_scan_paths": [], "default_scan_paths": [],
            "lib_version": "detect-bench", "lib_url": "file://" + self.rules, "lib_hash": "0",
            "file_type": "", "max_file_size": 0, "upload_file_count_per_day": 100000000,
            "monitor_file_change": False, "monitor_container": False,
            "auto_scan_task": {"task_condition": {"type": "daily", "at": "03:00"}},
        }
        with open(self.policy, "w") as f:
            json.dump({"feature_name": "detect_webshell", "hash": "detect-bench", "content": content}, f)

    def scan(self, tree):
        """Returns (certain paths, suspicious paths, seconds, summary text)."""
        upload = self.dir + "data/upload"
        shutil.rmtree(upload, ignore_errors=True)
        os.makedirs(upload, mode=0o700)
        events = os.path.join(os.path.dirname(self.policy), "events.jsonl")
        if os.path.exists(events):
            os.unlink(events)
        start = time.monotonic()
        run = subprocess.run([self.agent, "scan", "--install-dir", self.dir, "--policy", self.policy,
                              "--rules", self.rules, "--events", events, "--log-level", "warning",
                              "--upload-dir", upload,
                              os.path.abspath(tree)], capture_output=True, text=True)
        seconds = time.monotonic() - start
        if run.returncode not in (0, 1):
            sys.exit(f"detect: scan of {tree} failed ({run.returncode}):\n{run.stderr}")
        certain = set()
        if os.path.exists(events):
            with open(events, errors="replace") as f:
                for line in f:
                    info = json.loads(line)["file_info"]
                    for item in info if isinstance(info, list) else [info]:
                        certain.add(item["file_path"])
        kept = {}
        for sidecar in glob.glob(upload + "/*.json"):
            with open(sidecar, errors="replace") as f:
                doc = json.load(f)
            kept[doc["sha256"]] = doc["path"]
        return certain, kept, seconds, run.stderr.strip()


def pct(n, d):
    return f"{100.0 * n / d:.1f} %" if d else "-"


def main():
    ap = argparse.ArgumentParser(description="recall and false positives of a rule library, real agent")
    ap.add_argument("--repo", required=True)
    ap.add_argument("--malicious")
    ap.add_argument("--benign", nargs="+", default=[])
    ap.add_argument("--rules")
    ap.add_argument("--agent")
    ap.add_argument("--misses", action="store_true", help="list the malicious files not reported as certain")
    a = ap.parse_args()
    rules = a.rules or os.path.join(a.repo, "examples/rules/webshell.yar")
    agent = a.agent or os.path.join(a.repo, "build/stage/bin/ardent-agent")
    if not os.access(agent, os.X_OK):
        sys.exit(f"detect: {agent} is not an executable agent (build first, or give --agent)")
    if not a.malicious and not a.benign:
        sys.exit("detect: give --malicious DIR and/or --benign DIR...")
    work = tempfile.mkdtemp(prefix="ardent-detect-")
    try:
        inst = Install(agent, rules, work)
        total_files, total_seconds = 0, 0.0
        print(f"rules: {rules}\nagent: {agent}\n")
        if a.malicious:
            files = files_of(a.malicious)
            certain, kept, seconds, summary = inst.scan(a.malicious)
            total_files += len(files)
            total_seconds += seconds
            kept_sha = set(kept)
            per = collections.defaultdict(lambda: [0, 0, 0])
            misses = []
            for p in files:
                row = per[language(p, a.malicious)]
                row[0] += 1
                if p in certain:
                    row[1] += 1
                    row[2] += 1
                elif sha256(p) in kept_sha:
                    row[2] += 1
                    misses.append(p)
                else:
                    misses.append(p)
            print(f"## malicious: {a.malicious} ({len(files)} files, {seconds:.1f} s, "
                  f"{len(files) / seconds:.0f} files/s)\n")
            print("| language | samples | certain | recall (certain) | certain or suspicious | recall (either) |")
            print("|---|---|---|---|---|---|")
            tot = [0, 0, 0]
            for lang in sorted(per):
                n, c, e = per[lang]
                tot = [tot[0] + n, tot[1] + c, tot[2] + e]
                print(f"| {lang} | {n} | {c} | {pct(c, n)} | {e} | {pct(e, n)} |")
            print(f"| all | {tot[0]} | {tot[1]} | {pct(tot[1], tot[0])} | {tot[2]} | {pct(tot[2], tot[0])} |\n")
            if a.misses:
                for p in sorted(misses):
                    print(f"  not certain: {p}")
                print()
        for tree in a.benign:
            files = files_of(tree)
            certain, kept, seconds, summary = inst.scan(tree)
            total_files += len(files)
            total_seconds += seconds
            # The agent keeps one copy per content: count every file of the
            # tree that has a kept content.
            by_sha = collections.defaultdict(list)
            if kept:
                for p in files:
                    by_sha[sha256(p)].append(p)
            suspicious = sorted(p for s in kept for p in by_sha.get(s, [kept[s]]) if p not in certain)
            print(f"## benign: {tree} ({len(files)} files, {seconds:.1f} s, {len(files) / seconds:.0f} files/s)\n")
            print(f"certain: {len(certain)} ({pct(len(certain), len(files))}); "
                  f"suspicious: {len(suspicious)} ({pct(len(suspicious), len(files))})")
            for p in sorted(certain):
                print(f"  certain: {p}")
            for p in suspicious:
                print(f"  suspicious: {p}")
            print()
        if total_seconds > 0:
            print(f"overall: {total_files} files in {total_seconds:.1f} s, {total_files / total_seconds:.0f} files/s")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
