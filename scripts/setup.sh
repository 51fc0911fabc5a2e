#!/usr/bin/env bash
# Installs the Debian packages the project builds and runs with (only those
# missing), and mounts the BPF file system and tracefs if they are not.
set -euo pipefail

# clang's sanitizer and libFuzzer runtimes come with libclang-rt-dev, their
# symbolizer with llvm; util-linux has setpriv (tests that drop capabilities).
packages=(
  cmake ninja-build g++ clang llvm libclang-rt-dev pkg-config binutils util-linux
  libbpf-dev libbpfcc-dev bpftool
  android-libbase-dev android-liblog-dev android-libcutils-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

mountpoint -q /sys/fs/bpf || mount -t bpf bpf /sys/fs/bpf
mountpoint -q /sys/kernel/tracing || mount -t tracefs tracefs /sys/kernel/tracing
