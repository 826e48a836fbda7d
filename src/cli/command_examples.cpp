// SPDX-License-Identifier: MIT
// Example command lines of --help and of the manual page. A test parses each of them.
#include "cli/command.hpp"

namespace corvalen::cli {
namespace {

struct Examples {
    std::string_view command;
    std::string_view lines;
};

constexpr Examples kExamples[] = {
    {"version", "corvalenctl version"},
    {"status", "corvalenctl status --rights"},
    {"list",
     "corvalenctl list\n"
     "corvalenctl list delete-fileobjects"},
    {"log",
     "corvalenctl log --since today\n"
     "corvalenctl log --user ada --operation delete-fileobjects --limit 20"},
    {"nop", "corvalenctl nop"},
    {"discard-auth", "corvalenctl discard-auth"},
    {"debug", "corvalenctl debug on"},
    {"batch",
     "corvalenctl batch cleanup.txt\n"
     "corvalenctl batch --keep-going --yes --json <cleanup.txt"},
    {"install-rights", "corvalenctl install-rights"},
    {"remove-rights", "corvalenctl remove-rights"},
    {"prepare-uninstall", "corvalenctl prepare-uninstall --yes"},
    {"uninstall", "corvalenctl uninstall"},
    {"delete-files", "corvalenctl delete-files /opt/old/file /opt/old"},
    {"call",
     "corvalenctl call inspect-fileobject S:/srv/www\n"
     "corvalenctl call 7 S:/srv/www N:true N:true N:false"},
    {"create-fileobject", "corvalenctl create-fileobject --folder /srv/www"},
    {"rename-fileobject", "corvalenctl rename-fileobject /srv/www /srv/www.old"},
    {"inspect-fileobject", "corvalenctl inspect-fileobject /root/.config"},
    {"touch-fileobject", "corvalenctl touch-fileobject /srv/www/index.html"},
    {"create-link", "corvalenctl create-link ../releases/7 /srv/www/current"},
    {"delete-fileobjects",
     "corvalenctl delete-fileobjects --recursive --dry-run --sort size /srv/www.old\n"
     "corvalenctl delete-fileobjects -r /srv/www.old"},
    {"delete-foldercontents", "corvalenctl delete-foldercontents /var/cache/thumbnails"},
    {"modify-systemfile",
     "corvalenctl modify-systemfile /etc/motd --from motd.new\n"
     "sed s/no/yes/ /etc/x.conf | corvalenctl modify-systemfile /etc/x.conf"},
    {"modify-protection", "corvalenctl modify-protection --lock --recursive /srv/archive"},
    {"modify-hfsattr", "corvalenctl modify-hfsattr --type TEXT --creator '' --visible /srv/a"},
    {"modify-acl", "corvalenctl modify-acl /srv/a u::rw-,u:root:r--,g::r--,o::---"},
    {"search-patterns",
     "corvalenctl search-patterns /srv --extension log --extension tmp\n"
     "corvalenctl search-patterns /var --name core --sort size --limit 10"},
    {"search-agedfiles", "corvalenctl search-agedfiles /srv --days 365 --sort size"},
    {"search-filenames", "corvalenctl search-filenames /srv --prefix report- -e pdf"},
    {"search-fileorphans", "corvalenctl search-fileorphans --one-file-system /home"},
    {"inspect-storagesize", "corvalenctl inspect-storagesize /var/lib"},
    {"prop-permissions",
     "corvalenctl prop-permissions /srv/www --owner --group --mode\n"
     "corvalenctl prop-permissions /srv/www --acl --dry-run"},
    {"modify-powersetting", "corvalenctl modify-powersetting 'Disk Sleep Timer' 10"},
    {"modify-diskspindown", "corvalenctl modify-diskspindown 10"},
    {"modify-kernelsetting", "corvalenctl modify-kernelsetting vm.swappiness 60"},
    {"modify-nvram", "corvalenctl modify-nvram boot-note hello"},
    {"modify-preferences",
     "corvalenctl modify-preferences Colour blue --domain org.example.editor --any-user\n"
     "corvalenctl modify-preferences Colour --remove --user root"},
    {"modify-sysconf", "corvalenctl modify-sysconf ComputerName mill"},
    {"terminate-process", "corvalenctl terminate-process 4711"},
    {"execute-utility", "corvalenctl execute-utility chmod -R g+w /srv/www"},
};

}  // namespace

std::string_view examplesOf(std::string_view command) noexcept {
    for (const Examples& examples : kExamples)
        if (examples.command == command) return examples.lines;
    return {};
}

}  // namespace corvalen::cli
