# SPDX-License-Identifier: MIT
# A machine named "there", which is this one, and one named "nowhere". /run/bin/ssh reaches them.
set -e
mkdir -p /run/sshd /run/bin
ssh-keygen -q -t ed25519 -N '' -f /run/host
ssh-keygen -q -t ed25519 -N '' -f /run/key
cat > /run/sshd_config << 'CONFIGURATION'
HostKey /run/host
AuthorizedKeysFile /run/key.pub
PermitRootLogin yes
StrictModes no
UsePAM no
SetEnv PATH=/run:/usr/bin:/bin LD_LIBRARY_PATH=/run
CONFIGURATION
cat > /run/ssh_config << 'CONFIGURATION'
Host there
ProxyCommand /usr/sbin/sshd -i -f /run/sshd_config
IdentityFile /run/key
StrictHostKeyChecking no
UserKnownHostsFile /dev/null
Host nowhere
ProxyCommand false
CONFIGURATION
printf '#!/bin/sh\nexec /usr/bin/ssh -F /run/ssh_config "$@"\n' > /run/bin/ssh
chmod +x /run/bin/ssh
