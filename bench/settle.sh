#!/bin/bash
# Lets the file system settle before a measurement: writes everything back,
# then waits 75 seconds.
#
#   bench/settle.sh
#
# ext4 without a journal does not hand out again an inode freed in the last
# minute (longer while the inode's block waits to be written back): creating
# a file passes over every such inode, one by one. A send creates and
# deletes two work files, and a benchmark run deletes its whole private
# root at the end, so a run started right after another one pays for the
# files the earlier one deleted. Writing back first leaves the kernel's
# minute, and 75 seconds are that with a margin.
set -euo pipefail
echo "settling: sync, then 75 s" >&2
sync
sleep 75
