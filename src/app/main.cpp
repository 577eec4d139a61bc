// The quillet command. A desktop's key binding runs it twice a dictation (--press, then
// --release), and each run must be over in a few milliseconds: that answer comes from
// this small launcher, which links Qt Core and Network alone. Anything else loads the
// program proper, a module with the windows, the capsule and everything they need, whose
// ninety-odd libraries alone take the dynamic loader some 25 ms.
#include "app/SingleInstance.h"

#include <QCoreApplication>

#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>

#include <dlfcn.h>
#include <libgen.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

bool is(const char* argument, const char* option)
{
    return std::strcmp(argument, option) == 0;
}

// --press, --release and --toggle: a desktop binding passing its shortcut to the running
// instance. Help, version and history go to the program, which lists these options too.
std::optional<ShortcutEdge> shortcutEdgeArgument(int argc, char* argv[])
{
    std::optional<ShortcutEdge> edge;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (is(arg, "--"))
            break;
        if (is(arg, "--press"))
            edge = ShortcutEdge::press;
        else if (is(arg, "--release"))
            edge = ShortcutEdge::release;
        else if (is(arg, "--toggle"))
            edge = ShortcutEdge::toggle;
        else if (is(arg, "--help") || is(arg, "-h") || is(arg, "--help-all") || is(arg, "--version") || is(arg, "-v")
            || is(arg, "--history"))
            return std::nullopt;
    }
    return edge;
}

// The program module: where it is installed beside this launcher (as the build tree has
// it too), else, for a copy of the launcher elsewhere, where the build put it.
std::string programModule()
{
    char self[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string installed = QUILLET_PROGRAM_INSTALLED;
    if (length > 0) {
        self[length] = '\0';
        installed = std::string(::dirname(self)) + "/" QUILLET_PROGRAM_INSTALLED;
    }
#ifdef QUILLET_PROGRAM_BUILT
    if (::access(installed.c_str(), R_OK) != 0)
        return QUILLET_PROGRAM_BUILT;
#endif
    return installed;
}

} // namespace

int main(int argc, char* argv[])
{
    if (const std::optional<ShortcutEdge> edge = shortcutEdgeArgument(argc, argv)) {
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(u"Quillet"_s);
        QCoreApplication::setOrganizationName(u"Quillet"_s);
        if (SingleInstance::handOverEdge(*edge))
            return 0;
        std::fputs("Quillet is not running, so there is no dictation to start or stop: start quillet first.\n", stderr);
        return 1;
    }

    const std::string module = programModule();
    void* program = ::dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!program) {
        std::fprintf(stderr, "quillet: cannot load the program from %s: %s\n", module.c_str(), ::dlerror());
        return 1;
    }
    using ProgramMain = int (*)(int, char**);
    const auto run = reinterpret_cast<ProgramMain>(::dlsym(program, "quilletProgramMain"));
    if (!run) {
        std::fprintf(stderr, "quillet: %s is not Quillet's program module\n", module.c_str());
        return 1;
    }
    return run(argc, argv);
}
