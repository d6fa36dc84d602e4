#!/usr/bin/python3
"""One sync from Python: sync_once.py DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX"""

import sys

import tidalcrest.sync as sync


def main(data_dir, server_url, token, wallet_secret_hex):
    manager = sync.SyncManager.get_or_create(
        data_dir=data_dir, server_url=server_url, get_token=lambda: token,
        get_wallet_secret=lambda: bytes.fromhex(wallet_secret_hex))
    try:
        result = manager.sync()
    except sync.SyncUnavailableError as failure:
        sys.exit(f"not now: {failure}")
    print(f"era {result.era_number}: {len(result.active_relative_paths)} members below"
          f" {manager.active_cohort_data_dir()}, {result.bytes_downloaded} bytes fetched")


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit("usage: sync_once.py DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX")
    main(*sys.argv[1:])
