################################################################################
#
# vxutils
#
################################################################################

VXUTILS_VERSION = 1.0.0
VXUTILS_SOURCE = vxutils-$(VXUTILS_VERSION).tar.xz
# The directory with the source archive that scripts/release makes.
VXUTILS_SITE = $(BR2_EXTERNAL_VXUTILS_PATH)/package/vxutils
VXUTILS_SITE_METHOD = file
VXUTILS_LICENSE = MIT
VXUTILS_LICENSE_FILES = LICENSE
VXUTILS_INSTALL_STAGING = YES
VXUTILS_DEPENDENCIES = boost libevent zeromq

# The loader finds the stand-in for the platform's logging library beside the
# library without a run path.
VXUTILS_CONF_OPTS = -DVXUTILS_PRECOMPILE=ON -DCMAKE_SKIP_INSTALL_RPATH=ON

# The platform's own logging library, where there is a package of it.
ifeq ($(BR2_PACKAGE_DEVLOG),y)
VXUTILS_DEPENDENCIES += devlog
endif

ifeq ($(BR2_PACKAGE_VXUTILS_TOOLS),y)
VXUTILS_DEPENDENCIES += rapidjson
VXUTILS_CONF_OPTS += -DVXUTILS_TOOLS=ON
else
VXUTILS_CONF_OPTS += -DVXUTILS_TOOLS=OFF
endif

$(eval $(cmake-package))
