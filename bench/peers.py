"""Other tools on the same job. Each gives the command that fills a directory from a list of files, and every tool that
does not verify is followed by a digest of all files (`openssl dgst`, two processes) and one flush."""

import shutil
from pathlib import Path

WORKERS = 8


def proof(directory):
    return (f"find {directory} -type f -print0 | xargs -0 -n 64 -P 2 openssl dgst -sha256 >{directory}.digests"
            f" && sync -f {directory}")


def shell(text):
    return ["sh", "-c", "set -e; " + text]


def listing(directory, suffix, lines):
    path = directory.with_suffix(suffix)
    path.write_text("".join(line + "\n" for line in lines))
    return path


def aria2c(files, directory):
    lines = [f"{url}\n out={path}\n checksum=sha-256={entry['sha256']}" for path, url, entry in files]
    urls = listing(directory, ".aria2", lines)
    return shell(f"aria2c -q -j{WORKERS} -x1 --file-allocation=none -d {directory} -i {urls}; sync -f {directory}")


def curl_lines(files, directory):
    return [f'url="{url}"\noutput="{directory}/{path}"' for path, url, _ in files]


def curl_parallel(files, directory):
    urls = listing(directory, ".curl", curl_lines(files, directory))
    return shell(f"curl -sS --parallel --parallel-max {WORKERS} --create-dirs -K {urls}; {proof(directory)}")


def eight_curls(files, directory):
    lines = curl_lines(files, directory)
    starts = []
    for worker in range(WORKERS):
        urls = listing(directory, f".curl{worker}", lines[worker::WORKERS])
        starts.append(f"curl -sS --create-dirs -K {urls} & p{worker}=$!")
    waits = "; ".join(f"wait $p{worker}" for worker in range(WORKERS))
    return shell(f"{chr(10).join(starts)}\n{waits}; {proof(directory)}")


def wget2(files, directory):
    base = common_base(files)
    urls = listing(directory, ".wget2", [url for _, url, _ in files])
    depth = base.split("://", 1)[1].count("/")
    return shell(f"wget2 -q --max-threads={WORKERS} --no-robots -x -nH --cut-dirs={depth} -P {directory} -i {urls}"
                 f" >/dev/null; {proof(directory)}")


def rclone(files, directory):
    paths = listing(directory, ".rclone", [path for path, _, _ in files])
    return shell(f"rclone copy -q --config /dev/null --transfers {WORKERS} --checkers {WORKERS} --no-traverse"
                 f" --files-from-raw {paths} --http-no-head --http-url {common_base(files)} :http: {directory};"
                 f" {proof(directory)}")


def bare_libcurl(files, directory):
    """As little as can be done for the same promise: fetched and hashed by eight threads, hashed again, flushed."""
    program = Path(__file__).resolve().parent.parent / "build/release/bench/bare_fetch"
    lines = [f"{entry['sha256']} {path} {url}" for path, url, entry in files]
    return [program, directory, listing(directory, ".bare", lines)]


def common_base(files):
    path, url, _ = files[0]
    return url[:-len(path) - 1]


def installed(makers):
    """The makers whose program is here, by the name to show."""
    return {name: make for name, (program, make) in makers.items() if program is None or shutil.which(program)}


COLD = {
    "8 curls + proof": ("curl", eight_curls),
    "curl --parallel + proof": ("curl", curl_parallel),
    "aria2c with checksums": ("aria2c", aria2c),
    "wget2 + proof": ("wget2", wget2),
    "rclone copy + proof": ("rclone", rclone),
    "bare libcurl, hash, second proof": (None, bare_libcurl),
}
