// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <syslog.h>
#include <vxutils/dynamicmodule.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, dlclose, (void *handle), (handle))

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vxtest::LogLine;

const std::string full = vxtest::built("tests/plugin_full.so");
const std::string bare = vxtest::built("tests/plugin_bare.so");
const std::string user = vxtest::built("tests/plugin_user.so");

std::string quoted(const std::string &text) { return "\"" + text + "\""; }

bool isLoaded(const std::string &path) {
    void *handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) ::dlclose(handle);
    return handle != nullptr;
}

TEST(DynamicModule, LoadsNothingAtFirst) {
    vxtest::SyslogCapture log;
    {
        const CDynamicModule module(full);
        EXPECT_EQ(module.getLibPath(), full);
        EXPECT_FALSE(isLoaded(full));
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(DynamicModule, KeepsACopyOfThePath) {
    std::string path = "/some/path.so";
    const CDynamicModule module(path);
    path = "other";
    EXPECT_EQ(module.getLibPath(), "/some/path.so");
}

TEST(DynamicModule, CallsInitOnceAndDoneBeforeTheLibraryIsClosed) {
    vxtest::SyslogCapture log;
    std::string diary;
    {
        CDynamicModule module(full);
        EXPECT_EQ(module.load(&diary), 0);
        EXPECT_EQ(diary, "init;");
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine{LOG_DEBUG, "opened shared library " + quoted(full)},
                                LogLine{LOG_DEBUG, "calling init function for shared library " + quoted(full)}));
        EXPECT_TRUE(isLoaded(full));
    }
    EXPECT_EQ(diary, "init;done;closed;");
    EXPECT_FALSE(isLoaded(full));
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "Calling done function for shared library " + quoted(full)},
                                        LogLine{LOG_DEBUG, "closing shared library " + quoted(full)}));
}

// When a plug-in hangs or crashes, the last line of the log names the function that it was in.
TEST(DynamicModule, LogsEachStepBeforeItTakesIt) {
    vxtest::SyslogCapture log;
    std::string diary = "aloud;";
    {
        CDynamicModule module(full);
        ASSERT_EQ(module.load(&diary), 0);
        ASSERT_NE(module.getClassFactory(), nullptr);
    }
    const std::string path = "shared library " + quoted(full);
    EXPECT_THAT(
        log.take(),
        ElementsAre(LogLine{LOG_DEBUG, "opened " + path}, LogLine{LOG_DEBUG, "calling init function for " + path},
                    LogLine{LOG_INFO, "init"}, LogLine{LOG_DEBUG, "Retrieving classfactory from " + path},
                    LogLine{LOG_INFO, "factory"}, LogLine{LOG_DEBUG, "Calling done function for " + path},
                    LogLine{LOG_INFO, "done"}, LogLine{LOG_DEBUG, "closing " + path}, LogLine{LOG_INFO, "closed"}));
}

TEST(DynamicModule, TwoObjectsOfOnePathShareTheLibraryAndInitialiseItTwice) {
    std::string diary;
    auto first = std::make_unique<CDynamicModule>(full);
    CDynamicModule second(full);
    ASSERT_EQ(first->load(&diary), 0);
    ASSERT_EQ(second.load(&diary), 0);
    EXPECT_EQ(diary, "init;init;");
    EXPECT_EQ(first->getClassFactory(), second.getClassFactory());
    first.reset();
    EXPECT_EQ(diary, "init;init;factory;factory;done;");
    EXPECT_TRUE(isLoaded(full));
}

TEST(DynamicModule, WhatInitialisationThrowsReachesTheCallerAndTheLibraryStaysLoaded) {
    vxtest::SyslogCapture log;
    CDynamicModule first(full);
    ASSERT_EQ(first.load(nullptr), 0);
    CDynamicModule module(user);
    int number = 43;
    EXPECT_THROW(module.load(&number), int);
    (void)log.take();
    EXPECT_EQ(module.load(nullptr), -1);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "Dynamic module " + user + " already loaded"}));
    EXPECT_NE(module.getClassFactory(), nullptr);
}

TEST(DynamicModule, LoadsALibraryWithoutEntryPoints) {
    vxtest::SyslogCapture log;
    {
        CDynamicModule module(bare);
        EXPECT_EQ(module.load(nullptr), 0);
        EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "opened shared library " + quoted(bare)}));
    }
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "closing shared library " + quoted(bare)}));
    EXPECT_FALSE(isLoaded(bare));
}

TEST(DynamicModule, TheEmptyPathIsTheProgramItself) {
    CDynamicModule module("");
    EXPECT_EQ(module.load(nullptr), 0);
    EXPECT_EQ(module.getClassFactory(), nullptr);
}

TEST(DynamicModule, TheProgramItselfHasTheEntryPointsOfWhatIsLoaded) {
    std::string diary;
    CDynamicModule module(full);
    ASSERT_EQ(module.load(nullptr), 0);
    {
        CDynamicModule program("");
        EXPECT_EQ(program.load(&diary), 0);
        EXPECT_EQ(diary, "init;");
        EXPECT_EQ(program.getClassFactory(), module.getClassFactory());
    }
    EXPECT_EQ(diary, "init;factory;factory;done;");
    EXPECT_TRUE(isLoaded(full));
}

TEST(DynamicModule, AMissingEntryPointIsAnErrorOfTheLoader) {
    CDynamicModule module(bare);
    (void)module.lastError();
    ASSERT_EQ(module.load(nullptr), 0);
    const char *error = module.lastError();
    ASSERT_NE(error, nullptr);
    EXPECT_THAT(error, testing::HasSubstr("dynamic_module_init"));
}

TEST(DynamicModule, IsNotLoadedTwice) {
    vxtest::SyslogCapture log;
    std::string diary;
    CDynamicModule module(full);
    ASSERT_EQ(module.load(&diary), 0);
    (void)log.take();
    EXPECT_EQ(module.load(&diary), -1);
    EXPECT_EQ(diary, "init;");
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "Dynamic module " + full + " already loaded"}));
    EXPECT_NE(module.getClassFactory(), nullptr);
}

// Whether the loader touches errno at all is its own affair: the C library's keeps one of its own.
int errnoAfterOpening(const char *path, int before) {
    errno = before;
    EXPECT_EQ(::dlopen(path, RTLD_LAZY | RTLD_GLOBAL), nullptr);
    const int after = errno;
    (void)::dlerror();
    return after;
}

TEST(DynamicModule, FailsForAMissingLibraryWithTheTextOfErrno) {
    vxtest::SyslogCapture log;
    for (const int number : {EXDEV, ENOTTY}) {
        const std::string text = strerror(errnoAfterOpening("/nowhere/x.so", number));
        {
            CDynamicModule module("/nowhere/x.so");
            errno = number;
            EXPECT_EQ(module.load(nullptr), -1);
        }
        // and nothing more: a failed load leaves nothing to close
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine{LOG_ERR, "Unable to open shared library \"/nowhere/x.so\" - error=" + text}));
    }
}

TEST(DynamicModule, KeepsTheLoadersErrorForTheCaller) {
    CDynamicModule module("/nowhere/x.so");
    ASSERT_EQ(module.load(nullptr), -1);
    const char *error = module.lastError();
    ASSERT_NE(error, nullptr);
    EXPECT_THAT(error, testing::HasSubstr("/nowhere/x.so"));
    EXPECT_EQ(module.lastError(), nullptr);  // asked for once, it is gone
}

TEST(DynamicModule, LoadsAfterAFailureOnceTheLibraryIsThere) {
    const std::string path = "/tmp/late.so";
    std::string diary;
    CDynamicModule module(path);
    EXPECT_EQ(module.load(nullptr), -1);
    vxtest::writeFile(path, "not a library");
    EXPECT_EQ(module.load(nullptr), -1);
    EXPECT_THAT(module.lastError(), testing::HasSubstr(path));
    vxtest::writeFile(path, vxtest::readFile(full));
    EXPECT_EQ(module.load(&diary), 0);
    EXPECT_EQ(diary, "init;");
}

TEST(DynamicModule, HandsOutTheFactoryAnewEachTime) {
    vxtest::SyslogCapture log;
    std::string diary;
    CDynamicModule module(full);
    ASSERT_EQ(module.load(&diary), 0);
    (void)log.take();
    void *factory = module.getClassFactory();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(*static_cast<int *>(factory), 1);
    EXPECT_EQ(module.getClassFactory(), factory);
    EXPECT_EQ(*static_cast<int *>(factory), 2);
    EXPECT_EQ(diary, "init;factory;factory;");
    const LogLine line{LOG_DEBUG, "Retrieving classfactory from shared library " + quoted(full)};
    EXPECT_THAT(log.take(), ElementsAre(line, line));
}

TEST(DynamicModule, HasNoFactoryBeforeItIsLoaded) {
    vxtest::SyslogCapture log;
    const CDynamicModule module(full);
    EXPECT_EQ(module.getClassFactory(), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "Library not loaded"}));
}

TEST(DynamicModule, HasNoFactoryWhenTheLibraryHasNone) {
    vxtest::SyslogCapture log;
    CDynamicModule module(bare);
    ASSERT_EQ(module.load(nullptr), 0);
    (void)log.take();
    EXPECT_EQ(module.getClassFactory(), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{
                                LOG_ERR, "Symbol \"getClassFactory\" not found in shared library " + quoted(bare)}));
}

TEST(DynamicModule, ShowsItsSymbolsToLaterModules) {
    EXPECT_EQ(vxtest::inChild([] {
                  CDynamicModule alone(user);
                  return alone.load(nullptr) == -1 ? 0 : 1;  // a missing variable cannot wait for its first use
              }),
              0);
    CDynamicModule first(full);
    ASSERT_EQ(first.load(nullptr), 0);
    CDynamicModule second(user);
    ASSERT_EQ(second.load(nullptr), 0) << second.lastError();
    EXPECT_EQ(*static_cast<int *>(second.getClassFactory()), 1);  // the first one's count of its initialisations
}

TEST(DynamicModule, TheDestructorSwallowsWhatAModuleThrows) {
    vxtest::SyslogCapture log;
    CDynamicModule first(full);
    ASSERT_EQ(first.load(nullptr), 0);
    auto second = std::make_unique<CDynamicModule>(user);
    ASSERT_EQ(second->load(nullptr), 0);
    (void)log.take();
    EXPECT_NO_THROW(second.reset());
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_DEBUG, "Calling done function for shared library " + quoted(user)},
                                        LogLine{LOG_DEBUG, "closing shared library " + quoted(user)}));
}

TEST(DynamicModule, WarnsWhenTheLoaderRefusesToClose) {
    vxtest::SyslogCapture log;
    // A plug-in that is in use by another one stays in memory, also when its handle is given up once too often.
    auto module = std::make_unique<CDynamicModule>(full);
    ASSERT_EQ(module->load(nullptr), 0);
    CDynamicModule other(user);
    ASSERT_EQ(other.load(nullptr), 0);
    void *handle = ::dlopen(full.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(::dlclose(handle), 0);
    ASSERT_EQ(::dlclose(handle), 0);
    (void)log.take();
    module.reset();
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], (LogLine{LOG_DEBUG, "closing shared library " + quoted(full)}));
    EXPECT_EQ(lines[2].priority, LOG_WARNING);
    EXPECT_THAT(lines[2].text, testing::MatchesRegex("dlclose\\(\\) failed, rc=-?[1-9][0-9]*, "
                                                     "dlerror=.*shared object not open.*, errno=.* \\(lib=" +
                                                     full + "\\)"));
}

// The loader always has a text when it refuses; the library does not rely on that.
TEST(DynamicModule, WarnsWithoutATextOfTheLoader) {
    vxtest::SyslogCapture log;
    auto module = std::make_unique<CDynamicModule>(full);
    ASSERT_EQ(module->load(nullptr), 0);
    (void)log.take();
    ::dlerror();  // nothing pending
    {
        const vxtest::Hooked refused(vxtest::hooks::dlclose, [](void *handle) -> std::optional<int> {
            (void)vxtest::real::dlclose(handle);
            errno = EBUSY;
            return 7;
        });
        module.reset();
    }
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2],
              (LogLine{LOG_WARNING,
                       "dlclose() failed, rc=7, dlerror=<null>, errno=Device or resource busy (lib=" + full + ")"}));
}

TEST(DynamicModule, LeavesNoDescriptorOpen) {
    const vxtest::SyslogCapture log;
    ::syslog(LOG_INFO, "the connection to the log stays open from here on");
    const vxtest::NoLeaks leaks;
    std::string diary;
    for (int i = 0; i < 10; ++i) {
        CDynamicModule module(full);
        EXPECT_EQ(module.load(&diary), 0);
        CDynamicModule missing("/nowhere/x.so");
        EXPECT_EQ(missing.load(nullptr), -1);
    }
}

TEST(DynamicModuleExample, GreetsThroughAPlugIn) {
    const std::string program = vxtest::built("examples/dynamicmodule_host");
    const auto output = vxtest::run({program, vxtest::built("examples/dynamicmodule_greeter.so"), "gateway"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "plug-in is ready for gateway\nGood morning, gateway!\nplug-in says goodbye\n");
    const auto failed = vxtest::run({program, "/nowhere/x.so", "gateway"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.text, testing::HasSubstr("/nowhere/x.so"));
}

}  // namespace
