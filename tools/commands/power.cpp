// SPDX-License-Identifier: MIT
// vx reboot, vx poweroff: through the library, honouring the markers that veto them.
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/command.h>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/file.h"

namespace tool {

namespace {

struct Action {
    const char *name;
    const char *marker;
    const char *script;
    void (*start)(int a, int b);
};

constexpr Action restart{"reboot", "/nvstatus/skip-reboot", "/usr/local/sbin/system-reboot", system_reboot};
constexpr Action switchOff{"poweroff", "/nvstatus/skip-poweroff", "/usr/local/sbin/system-poweroff", system_poweroff};

bool isVetoed(const Action &action) { return ::access(action.marker, R_OK) == 0; }

void unveto(const Action &action) {
    if (::unlink(action.marker) != 0 && errno != ENOENT) throw systemFailure(action.marker);
}

void start(const Action &action, const Arguments &arguments) {
    const auto number = [&](size_t index) {
        return arguments.size() > index
                   ? static_cast<int>(arguments.wordAsNumber(index, index == 0 ? "A" : "B", INT32_MIN, INT32_MAX))
                   : 0;
    };
    const int a = number(0);
    const int b = number(1);
    if (isVetoed(action))
        throw Failure(action.marker, std::string("vetoes the ") + action.name + "; --unveto removes it");
    const bool byKernel = ::access(action.script, X_OK) != 0;
    if (byKernel && !arguments.has("force")) {
        throw Failure(action.script, std::string(std::strerror(errno)) +
                                         "; with --force the kernel acts at once, nothing written back");
    }
    action.start(a, b);
    if (byKernel) throw systemFailure("kernel");  // which does not return from what it grants
}

template <const Action &action>
int perform(const Arguments &arguments, Output &out) {
    const int chosen =
        (arguments.has("veto") ? 1 : 0) + (arguments.has("unveto") ? 1 : 0) + (arguments.has("status") ? 1 : 0);
    if (chosen > 1) throw Usage{"--veto, --unveto and --status exclude each other"};
    if (chosen == 1 && (arguments.size() > 0 || arguments.has("force")))
        throw Usage{"A, B and --force are for the action itself, not for its veto"};
    if (arguments.has("status")) {
        out.print(Record{{"action", action.name}, {"vetoed", isVetoed(action)}}, Plain::value);
        return statusDone;
    }
    if (arguments.has("veto")) {
        replaceFile(action.marker, action.marker, "", true);
    } else if (arguments.has("unveto")) {
        unveto(action);
    } else {
        start(action, arguments);
    }
    out.done();
    return statusDone;
}

constexpr Option options[] = {
    {0, "veto", nullptr, "forbid it, until --unveto"},
    {0, "unveto", nullptr, "allow it again"},
    {0, "status", nullptr, "print 1 while it is vetoed, else 0"},
    {0, "force", nullptr, "go on without the firmware's script: the kernel acts at once, nothing written back"},
};
constexpr Argument numbers[] = {{"A", Count::optional}, {"B", Count::optional}};
constexpr Verb rebootVerbs[] = {
    {"", "restart the device; A and B go to the firmware's script (0)", options, numbers, perform<restart>}};
constexpr Verb poweroffVerbs[] = {
    {"", "switch the device off; A and B go to the firmware's script (0)", options, numbers, perform<switchOff>}};

}  // namespace

const Command rebootCommand{"reboot", "restart of the device, and its veto", {}, rebootVerbs};
const Command poweroffCommand{"poweroff", "switching the device off, and its veto", {}, poweroffVerbs};

}  // namespace tool
