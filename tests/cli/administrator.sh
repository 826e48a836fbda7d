# SPDX-License-Identifier: MIT
# Makes "corvadmin", with the password "secret", the machine's only administrator.
set -e
echo 'polkit.addAdminRule(function() { return ["unix-user:corvadmin"]; });' > /etc/polkit-1/rules.d/10.rules
sed '$a corvadmin:x:61234:61234::/:/bin/sh' /etc/passwd > /run/passwd
(umask 077; cat /etc/shadow - > /run/shadow) << 'LINE'
corvadmin:$6$corvalen$BUpMfLR1wY501cuuVFIHBY.G9LA5NlpHludzh7juOwplC.AzAvM76Y5oUrgxfvgJJYuR0AeqabyNDlHy8kYle0:19000:0:99999:7:::
LINE
for name in passwd shadow; do mount --bind /run/$name /etc/$name; done
