# What Buildroot's infrastructure for CMake packages does with packaging/buildroot/package/vxutils/vxutils.mk: its toolchain
# file, its commands to configure, build and install, and the clean-up of the target directory.
BR2_EXTERNAL_VXUTILS_PATH = $(TOP)/packaging/buildroot
BUILDDIR = $(WORK)/build
STAGING_DIR = $(WORK)/staging
TARGET_DIR = $(WORK)/target
TARGET_CFLAGS = -D_LARGEFILE_SOURCE -D_LARGEFILE64_SOURCE -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -O2 -g0 -D_FORTIFY_SOURCE=1

define toolchain
set(CMAKE_SYSTEM_NAME Buildroot)
set(CMAKE_SYSTEM_VERSION 1)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_BUILD_TYPE Release CACHE STRING "Buildroot build configuration")
set(CMAKE_C_FLAGS_DEBUG "" CACHE STRING "Debug CFLAGS")
set(CMAKE_CXX_FLAGS_DEBUG "" CACHE STRING "Debug CXXFLAGS")
set(CMAKE_C_FLAGS_RELEASE " -DNDEBUG" CACHE STRING "Release CFLAGS")
set(CMAKE_CXX_FLAGS_RELEASE " -DNDEBUG" CACHE STRING "Release CXXFLAGS")
set(CMAKE_C_FLAGS "$(TARGET_CFLAGS)" CACHE STRING "Buildroot CFLAGS")
set(CMAKE_CXX_FLAGS "$(TARGET_CFLAGS)" CACHE STRING "Buildroot CXXFLAGS")
set(CMAKE_EXE_LINKER_FLAGS "" CACHE STRING "Buildroot LDFLAGS for executables")
set(CMAKE_INSTALL_SO_NO_EXE 0)
set(CMAKE_SYSROOT "$(SYSROOT)")
set(CMAKE_FIND_ROOT_PATH "$(SYSROOT)")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_C_COMPILER "$(TRIPLET)-gcc")
set(CMAKE_CXX_COMPILER "$(TRIPLET)-g++")
endef
export toolchain

define cmake-package
configure:
	printf '%s\n' "$$$$toolchain" >$(WORK)/toolchainfile.cmake
	mkdir -p $(WORK)/cmake/Platform && echo 'include(Platform/Linux)' >$(WORK)/cmake/Platform/Buildroot.cmake
	mkdir -p $(BUILDDIR) && cd $(BUILDDIR) && rm -f CMakeCache.txt && cmake $(TOP)/ -G"Unix Makefiles" \
		-DCMAKE_MODULE_PATH=$(WORK)/cmake \
		-DCMAKE_TOOLCHAIN_FILE="$(WORK)/toolchainfile.cmake" -DCMAKE_INSTALL_PREFIX="/usr" \
		-DCMAKE_INSTALL_RUNSTATEDIR="/run" -DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_DOC=OFF -DBUILD_DOCS=OFF \
		-DBUILD_EXAMPLE=OFF -DBUILD_EXAMPLES=OFF -DBUILD_TEST=OFF -DBUILD_TESTS=OFF -DBUILD_TESTING=OFF \
		-DBUILD_SHARED_LIBS=ON $(VXUTILS_CONF_OPTS)
build:
	cmake --build $(BUILDDIR) -j$(shell nproc)
install-staging:
	DESTDIR=$(STAGING_DIR) cmake --install $(BUILDDIR)
install-target:
	DESTDIR=$(TARGET_DIR) cmake --install $(BUILDDIR)
endef

include $(BR2_EXTERNAL_VXUTILS_PATH)/external.mk

show:
	@echo 'version $(VXUTILS_VERSION)'
	@echo 'dependencies $(VXUTILS_DEPENDENCIES)'
	@echo 'options $(VXUTILS_CONF_OPTS)'

target-finalize:
	rm -rf $(TARGET_DIR)/usr/include $(TARGET_DIR)/usr/lib/pkgconfig $(TARGET_DIR)/usr/lib/cmake
	rm -rf $(TARGET_DIR)/usr/share/man $(TARGET_DIR)/usr/share/bash-completion $(TARGET_DIR)/usr/share/zsh
	find $(TARGET_DIR)/usr/lib -name '*.a' -delete

.PHONY: configure build install-staging install-target target-finalize show
