SUMMARY = "Storage-volume daemon for embedded display units"
DESCRIPTION = "Mounts the storage volumes that the hardware service announces, reports them to the \
display application, and shares them with other units over NFS."
SECTION = "base"
LICENSE = "CLOSED"

# The repository that contains this layer. An image that has it elsewhere sets VOLDRAKE_SOURCE.
VOLDRAKE_SOURCE ?= "${@os.path.normpath(d.getVar('FILE_DIRNAME') + '/../../../../..')}"
inherit externalsrc
EXTERNALSRC = "${VOLDRAKE_SOURCE}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"
EXTERNALSRC_SYMLINKS = ""

DEPENDS = "dbus glib-2.0"

inherit cmake pkgconfig systemd update-rc.d

EXTRA_OECMAKE = "\
    -DBUILD_TESTING=OFF \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DVOLDRAKE_UNIT_DIR=${systemd_system_unitdir} \
    -DVOLDRAKE_SYSTEMD=${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'ON', 'OFF', d)} \
    -DVOLDRAKE_SYSV=${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'ON', 'OFF', d)} \
"

PACKAGECONFIG ??= "hald manuals static-runtime"
PACKAGECONFIG[hald] = "-DVOLDRAKE_HALD=ON,-DVOLDRAKE_HALD=OFF,udev util-linux"
PACKAGECONFIG[tools] = "-DVOLDRAKE_TOOLS=ON,-DVOLDRAKE_TOOLS=OFF,libpcap"
PACKAGECONFIG[manuals] = "-DVOLDRAKE_MANUALS=ON,-DVOLDRAKE_MANUALS=OFF,python3-native"
PACKAGECONFIG[static-runtime] = "-DVOLDRAKE_STATIC_RUNTIME=ON,-DVOLDRAKE_STATIC_RUNTIME=OFF"
PACKAGECONFIG[ignore-unknown-announcements] = "\
    -DVOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS=ON,-DVOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS=OFF"
inherit ${@bb.utils.contains('PACKAGECONFIG', 'manuals', 'python3native', '', d)}

SYSTEMD_PACKAGES = "${PN} ${PN}-hald"
SYSTEMD_SERVICE:${PN} = "voldrake.service voldrake-bus.service"
SYSTEMD_SERVICE:${PN}-hald = "voldrake-hald.service"
INITSCRIPT_PACKAGES = "${PN} ${PN}-hald"
INITSCRIPT_NAME:${PN} = "voldrake"
INITSCRIPT_NAME:${PN}-hald = "voldrake-hald"
# The NFS server starts and stops at 20, and the message bus stops at 20.
INITSCRIPT_PARAMS:${PN} = "start 60 2 3 4 5 . stop 10 0 1 6 ."
INITSCRIPT_PARAMS:${PN}-hald = "start 59 2 3 4 5 . stop 11 0 1 6 ."

PACKAGES =+ "${PN}-hald ${PN}-tools ${PN}-bash-completion ${PN}-zsh-completion"
FILES:${PN}-hald = "\
    ${sbindir}/voldrake-hald \
    ${sysconfdir}/init.d/voldrake-hald \
    ${systemd_system_unitdir}/voldrake-hald.service \
    ${datadir}/dbus-1/system-services \
    ${datadir}/dbus-1/system.d/voldrake-hald.conf \
"
FILES:${PN}-tools = "${bindir} ${libdir}/wireshark"
FILES:${PN}-bash-completion = "${datadir}/bash-completion"
FILES:${PN}-zsh-completion = "${datadir}/zsh"
FILES:${PN} += "\
    ${sysconfdir} \
    ${sbindir} \
    ${datadir}/dbus-1 \
    ${nonarch_libdir}/tmpfiles.d \
    ${systemd_system_unitdir} \
"
CONFFILES:${PN} = "${sysconfdir}/default/voldrake ${sysconfdir}/logrotate.d/voldrake"

# mount.nfs, exportfs and the server's helpers; mount, umount and mountpoint.
RDEPENDS:${PN} = "dbus"
RDEPENDS:${PN}-hald = "dbus udev"
RRECOMMENDS:${PN}-hald = "util-linux-mount"
RRECOMMENDS:${PN} = "\
    kernel-module-nfs \
    kernel-module-nfsd \
    kernel-module-nfsv3 \
    nfs-utils \
    nfs-utils-client \
    util-linux-mount \
    util-linux-mountpoint \
    util-linux-umount \
    ${@bb.utils.contains('PACKAGECONFIG', 'hald', '${PN}-hald', '', d)} \
"

# nfs-utils does not provide this file; without it the server does not start and exportfs fails.
pkg_postinst:${PN}() {
    [ -e "$D${sysconfdir}/exports" ] || : > "$D${sysconfdir}/exports"
}
