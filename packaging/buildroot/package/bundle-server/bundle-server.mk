################################################################################
#
# bundle-server
#
################################################################################

# The sources are the tree that this file is part of. To fetch them instead, set a version and a site, and add a
# bundle-server.hash with the checksums of the fetched and reviewed files.
BUNDLE_SERVER_VERSION = 0.1.0
BUNDLE_SERVER_SITE = $(BR2_EXTERNAL_BUNDLE_SERVER_PATH)/../..
BUNDLE_SERVER_SITE_METHOD = local
BUNDLE_SERVER_LICENSE = MIT
BUNDLE_SERVER_LICENSE_FILES = LICENSE
BUNDLE_SERVER_DEPENDENCIES = host-pkgconf poco

BUNDLE_SERVER_CONF_OPTS = \
	-DBUNDLE_SERVER_TESTS=OFF \
	-DBUNDLE_SERVER_AUTHOR=OFF \
	-DBUNDLE_SERVER_INIT=$(if $(BR2_INIT_SYSTEMD),systemd,sysv) \
	$(call qstrip,$(BR2_PACKAGE_BUNDLE_SERVER_CONF_OPTS))

ifeq ($(BR2_PACKAGE_BUNDLE_SERVER_HOST_PLATFORM),y)
BUNDLE_SERVER_DEPENDENCIES += libevent safeclib
BUNDLE_SERVER_CONF_OPTS += -DBUNDLE_SERVER_PLATFORM=host
else
BUNDLE_SERVER_CONF_OPTS += -DBUNDLE_SERVER_PLATFORM=device
endif

ifeq ($(BR2_PACKAGE_BUNDLE_SERVER_PUT),y)
BUNDLE_SERVER_DEPENDENCIES += elfutils libarchive libsodium
BUNDLE_SERVER_CONF_OPTS += -DBUNDLE_SERVER_PUT=ON
else
BUNDLE_SERVER_CONF_OPTS += -DBUNDLE_SERVER_PUT=OFF
endif

# Renames the init script to the form that the start-up of busybox and sysvinit expects.
define BUNDLE_SERVER_INSTALL_INIT_SYSV
	mv $(TARGET_DIR)/etc/init.d/bundle-server $(TARGET_DIR)/etc/init.d/S90bundle-server
endef

$(eval $(cmake-package))
