// Code page setup: the choice of the OEM and ANSI code pages from the
// environment or the locale, the fallbacks, the log, release. Every setup
// runs in a child process, so that it sees a fresh environment and locale
// and the test process keeps the code pages it had.
#include <syslog.h>

#include "conv_test_util.h"
#include "kspl_test.h"

namespace {

constexpr int kErr = LOG_USER | LOG_ERR;
constexpr int kInfo = LOG_USER | LOG_INFO;
using Lines = std::vector<std::pair<int, std::string>>;

// Sets the environment the way a host would before the library starts (a
// null value unsets the variable) and runs the setup again.
int RunSetup(const char* codePage, const char* logCodePage, const char* lcAll = "C") {
    for (auto [name, value] : {std::pair{"ZELTA_CODE_PAGE", codePage},
                               std::pair{"ZELTA_LOG_CODE_PAGE", logCodePage},
                               std::pair{"LC_ALL", lcAll}}) {
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    UnInitCharConvInfrastructure();
    return InitCharConvInfrastructure();
}

const char kAscii[] = "ANSI_X3.4-1968";
const Lines kLocaleLines = {
    {kInfo, "Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n"},
    {kInfo, "OEM Code Page setting obtained from locale settings = ANSI_X3.4-1968\n"},
    {kInfo, "Setting OEM Code Page to ANSI_X3.4-1968\n"},
    {kInfo, "Setting ANSI Code Page to ANSI_X3.4-1968\n"}};

// ZELTA_CODE_PAGE, ZELTA_LOG_CODE_PAGE, LC_ALL; the OEM and ANSI code pages,
// their euro flags and the lines logged. Only the exact names 437, 850 and
// 866 imply another ANSI code page; an empty ZELTA_CODE_PAGE counts as
// unset, an empty ZELTA_LOG_CODE_PAGE turns the log on; a name iconv does
// not know falls back to ASCII, and the checks log it whatever the log
// setting says.
const std::tuple<const char*, const char*, const char*, const char*, const char*, BOOLEAN,
                 BOOLEAN, Lines>
    kSetups[] = {
        {"866", nullptr, "C", "866", "WINDOWS-1251", FALSE, TRUE, {}},
        {"850", nullptr, "C", "850", "WINDOWS-1252", FALSE, TRUE, {}},
        {"CP437", nullptr, "C", "CP437", "CP437", FALSE, FALSE, {}},
        {"ISO-8859-15", nullptr, "C", "ISO-8859-15", "ISO-8859-15", TRUE, TRUE, {}},
        {"850", nullptr, "C.UTF-8", "850", "WINDOWS-1252", FALSE, TRUE, {}},
        {"", nullptr, "C.UTF-8", "UTF-8", "UTF-8", TRUE, TRUE, {}},
        {"", "", "C", kAscii, kAscii, FALSE, FALSE, kLocaleLines},
        {"NO-SUCH-CP", nullptr, "C", kAscii, kAscii, FALSE, FALSE,
         {{kErr, "CodePageValid: Unable to open conversion descriptor NO-SUCH-CP-UNICODE\n"}}},
};

class CodePageTest : public KsplTest {};

TEST_F(CodePageTest, EnvironmentAndLocaleChooseTheCodePages) {
    EXPECT_EQ(KsplRunInChild([] {
                  for (const auto& [env, logOn, lcAll, oem, ansi, oemEuro, ansiEuro, lines] :
                       kSetups) {
                      SCOPED_TRACE(::testing::Message() << (env ? env : "(unset)") << " " << lcAll);
                      LogCapture log;
                      ASSERT_EQ(RunSetup(env, logOn, lcAll), 0);
                      EXPECT_STREQ(g_pOemCodePage, oem);
                      EXPECT_STREQ(g_pAnsiCodePage, ansi);
                      EXPECT_EQ(g_oemCodePageSupportsEuro, oemEuro);
                      EXPECT_EQ(g_ansiCodePageSupportsEuro, ansiEuro);
                      EXPECT_EQ(log.Messages(), lines);
                  }
              }),
              0);
}

// Only an exhausted heap fails the setup (the first or the second copy of
// a name, logged when the log is on); it then leaves nothing behind, and a
// release after it, or twice in a row, frees nothing again. Release keeps
// the euro flags.
TEST_F(CodePageTest, AllocationFailureAndRelease) {
    EXPECT_EQ(KsplRunInChild([] {
                  static int allowed;
                  KsplSetCodePageAllocHook([](size_t size) -> void* {
                      return allowed-- > 0 ? std::malloc(size) : nullptr;
                  });
                  for (int ok : {0, 1}) {
                      LogCapture log;
                      allowed = ok;
                      EXPECT_EQ(RunSetup("850", ok == 0 ? "" : nullptr), -1);
                      EXPECT_TRUE(g_pOemCodePage == nullptr && g_pAnsiCodePage == nullptr);
                      const Lines logged = {{kErr, "Unable to allocate buffer for code page string"}};
                      EXPECT_EQ(log.Messages().empty() ? Lines{} : Lines{log.Messages().back()},
                                ok == 0 ? logged : Lines{});
                      UnInitCharConvInfrastructure();
                  }
                  KsplSetCodePageAllocHook(nullptr);
                  ASSERT_EQ(RunSetup("ISO-8859-15", nullptr), 0);
                  const std::string oem = g_pOemCodePage;
                  EXPECT_TRUE(KsplConvHasTables(oem.c_str()));
                  UnInitCharConvInfrastructure();
                  UnInitCharConvInfrastructure();
                  EXPECT_TRUE(g_pOemCodePage == nullptr && g_pAnsiCodePage == nullptr);
                  EXPECT_FALSE(KsplConvHasTables(oem.c_str()));
                  EXPECT_TRUE(g_oemCodePageSupportsEuro && g_ansiCodePageSupportsEuro);
              }),
              0);
}

}  // namespace
