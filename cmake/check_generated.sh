#!/usr/bin/env bash
# Fails when a generated file that is checked in differs from what its generator writes.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../sim/scenarios"
cp phone.pcap phone.pcap.kept
trap 'mv -f phone.pcap.kept phone.pcap' EXIT
python3 make_phone_pcap.py
cmp phone.pcap phone.pcap.kept
