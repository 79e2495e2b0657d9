################################################################################
#
# voldrake
#
################################################################################

VOLDRAKE_VERSION = 1.10
# The repository that this tree is part of. An image that has it elsewhere sets
# VOLDRAKE_OVERRIDE_SRCDIR in local.mk.
VOLDRAKE_SITE = $(BR2_EXTERNAL_VOLDRAKE_PATH)/../..
VOLDRAKE_SITE_METHOD = local
VOLDRAKE_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
VOLDRAKE_LICENSE = PROPRIETARY
VOLDRAKE_REDISTRIBUTE = NO
VOLDRAKE_DEPENDENCIES = host-pkgconf dbus dbus-glib libglib2

ifeq ($(BR2_PACKAGE_VOLDRAKE_HALD),y)
VOLDRAKE_DEPENDENCIES += udev util-linux
endif

VOLDRAKE_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DCMAKE_INSTALL_SYSCONFDIR=/etc \
	-DVOLDRAKE_MANUALS=OFF \
	-DVOLDRAKE_HALD=$(if $(BR2_PACKAGE_VOLDRAKE_HALD),ON,OFF) \
	-DVOLDRAKE_HALD_SYSV_NAME=S59voldrake-hald \
	-DVOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS=$(if $(BR2_PACKAGE_VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS),ON,OFF) \
	-DVOLDRAKE_STATIC_RUNTIME=$(if $(BR2_PACKAGE_VOLDRAKE_STATIC_RUNTIME),ON,OFF) \
	-DVOLDRAKE_TOOLS=$(if $(BR2_PACKAGE_VOLDRAKE_TOOLS),ON,OFF) \
	-DVOLDRAKE_SYSTEMD=$(if $(BR2_INIT_SYSTEMD),ON,OFF) \
	-DVOLDRAKE_SYSV=$(if $(BR2_INIT_SYSTEMD),OFF,ON) \
	-DVOLDRAKE_SYSV_NAME=S60voldrake

$(eval $(cmake-package))
