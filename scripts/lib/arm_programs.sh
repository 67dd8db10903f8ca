#!/usr/bin/env bash
# arm_programs.sh COMMAND...: runs the command while the kernel has ARM programs run by qemu. In a
# mount namespace that ends with it.
set -euo pipefail

binfmt=/proc/sys/fs/binfmt_misc
mount -t binfmt_misc binfmt_misc $binfmt
if ! grep -qsE '^interpreter .*(qemu-arm|arm-binfmt)' $binfmt/*; then
  name=orva-qemu-arm-$$
  sed "s/^:qemu-arm:/:$name:/" /usr/lib/binfmt.d/qemu-arm.conf >$binfmt/register
  # Some kernels keep it when the namespace has ended.
  trap 'echo -1 >$binfmt/$name' EXIT
fi
"$@"
