SUMMARY = "Shared utility library of a router firmware"
DESCRIPTION = "One way for every daemon and tool of the firmware to read configuration, talk to the modem daemon, publish \
status, raise events, run commands, lock, run an event loop, ping, look up routes, drive the board, send SMS, write a device \
log and compute digests."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=08b01e71a43584cab2b182a466e57f2b"

DEPENDS = "boost libevent zeromq"

# The directory with the source archive that scripts/release makes. That script also writes the archive's checksum into a copy
# of this recipe: the archive contains the original and so its checksum cannot be in it.
VXUTILS_SITE ?= "file://${THISDIR}/files"
SRC_URI = "${VXUTILS_SITE}/vxutils-${PV}.tar.xz"

inherit cmake pkgconfig bash-completion

PACKAGECONFIG ??= "tools"
PACKAGECONFIG[tools] = "-DVXUTILS_TOOLS=ON,-DVXUTILS_TOOLS=OFF,rapidjson"
PACKAGECONFIG[static] = "-DBUILD_SHARED_LIBS=OFF,-DBUILD_SHARED_LIBS=ON"
# The platform's own logging library, from a recipe of that name, instead of the stand-in.
PACKAGECONFIG[devlog] = ",,devlog"

# The loader finds the stand-in beside the library without a run path.
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DVXUTILS_PRECOMPILE=ON -DCMAKE_SKIP_INSTALL_RPATH=ON"

# Named locks are identified by the file /usr/lib/libvxutils.so.1.0.0. Where the libraries are elsewhere (lib64, multilib) a
# linker script has that name.
do_install:append() {
    if [ ! -e ${D}${prefix}/lib/libvxutils.so.1.0.0 ]; then
        install -D -m 644 ${S}/packaging/lock-file ${D}${prefix}/lib/libvxutils.so.1.0.0
    fi
}

PACKAGES =+ "libdevlog libdevlog-dev ${PN}-tools ${PN}-zsh-completion"
FILES:libdevlog = "${libdir}/libdevlog${SOLIBS}"
FILES:libdevlog-dev = "${libdir}/libdevlog${SOLIBSDEV} ${includedir}/devlog.h"
FILES:${PN}-tools = "${bindir}/vx ${datadir}/vxutils/schemas"
FILES:${PN}-zsh-completion = "${datadir}/zsh"
FILES:${PN} += "${prefix}/lib/libvxutils${SOLIBS}"
SUMMARY:${PN}-tools = "Command-line tool of the shared utility library"
SUMMARY:libdevlog = "Log levels of a router platform (stand-in)"

RDEPENDS:${PN}-dev += "libdevlog-dev"
# Loaded at first use by programs that read status FIFOs or use ZeroMQ events.
RRECOMMENDS:${PN} += "libevent zeromq"
