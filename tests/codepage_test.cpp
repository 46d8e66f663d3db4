// Code page setup: the choice of the OEM and ANSI code pages from the
// environment or the locale, the fallbacks, the log, release. Every setup
// runs in a child process, so that it sees a fresh environment and locale
// and the test process keeps the code pages it had.
#include <syslog.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "conv_test_util.h"
#include "kspl_test.h"
#include "locale_int.h"

namespace {

constexpr int kErr = LOG_USER | LOG_ERR;
constexpr int kInfo = LOG_USER | LOG_INFO;
using Lines = std::vector<std::pair<int, std::string>>;

// Sets the environment the way a host would before the library starts and
// runs the setup again. A null value unsets the variable.
int RunSetup(const char* codePage, const char* logCodePage, const char* lcAll = "C") {
    if (codePage != nullptr) {
        setenv("ZELTA_CODE_PAGE", codePage, 1);
    } else {
        unsetenv("ZELTA_CODE_PAGE");
    }
    if (logCodePage != nullptr) {
        setenv("ZELTA_LOG_CODE_PAGE", logCodePage, 1);
    } else {
        unsetenv("ZELTA_LOG_CODE_PAGE");
    }
    setenv("LC_ALL", lcAll, 1);
    UnInitCharConvInfrastructure();
    return InitCharConvInfrastructure();
}

std::string Str(const char* p) { return p != nullptr ? p : "(null)"; }

bool HaveUtf8Locale() {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (l == nullptr) return false;
    freelocale(l);
    return true;
}

class CodePageTest : public KsplTest {};

TEST_F(CodePageTest, EnvironmentChoosesOemAndMappedAnsi) {
    EXPECT_EQ(KsplRunInChild([] {
                  struct Case {
                      const char* env;
                      const char* ansi;
                      BOOLEAN oemEuro;
                      BOOLEAN ansiEuro;
                  };
                  // Only the exact names 437, 850 and 866 imply another ANSI
                  // code page; each setup reads the environment afresh.
                  const Case cases[] = {
                      {"866", "WINDOWS-1251", FALSE, TRUE},
                      {"850", "WINDOWS-1252", FALSE, TRUE},
                      {"437", "WINDOWS-1252", FALSE, TRUE},
                      {"CP437", "CP437", FALSE, FALSE},
                      {"IBM437", "IBM437", FALSE, FALSE},
                      {"ISO-8859-1", "ISO-8859-1", FALSE, FALSE},
                      {"ISO-8859-15", "ISO-8859-15", TRUE, TRUE},
                      {"UTF-8", "UTF-8", TRUE, TRUE},
                  };
                  for (const Case& c : cases) {
                      SCOPED_TRACE(c.env);
                      LogCapture log;
                      ASSERT_EQ(RunSetup(c.env, nullptr), 0);
                      EXPECT_EQ(Str(g_pOemCodePage), c.env);
                      EXPECT_EQ(Str(g_pAnsiCodePage), c.ansi);
                      EXPECT_EQ(g_oemCodePageSupportsEuro, c.oemEuro);
                      EXPECT_EQ(g_ansiCodePageSupportsEuro, c.ansiEuro);
                      EXPECT_TRUE(log.Messages().empty()) << "the log is off";
                  }
              }),
              0);
}

// The setup's choice is what the conversions use: selector 2 the OEM code
// page, selector 1 the ANSI one.
TEST_F(CodePageTest, ConversionsUseTheChosenCodePages) {
    EXPECT_EQ(KsplRunInChild([] {
                  ASSERT_EQ(RunSetup("866", nullptr), 0);
                  std::vector<WCHAR> cyrillicA = Wide(u"\u0410");
                  char out[8];
                  UINT32 len = sizeof(out);
                  ASSERT_EQ(KsoWideCharToMultiByte(pIKspl, 2, cyrillicA.data(), -1, out, &len), 0u);
                  EXPECT_EQ(std::string(out, len), "\x80");
                  len = sizeof(out);
                  ASSERT_EQ(KsoWideCharToMultiByte(pIKspl, 1, cyrillicA.data(), -1, out, &len), 0u);
                  EXPECT_EQ(std::string(out, len), "\xC0");
                  // CP866 has no euro sign, WINDOWS-1251 has one at 0x88.
                  std::vector<WCHAR> euro = Wide(u"\u20AC");
                  len = sizeof(out);
                  ASSERT_EQ(KsoWideCharToMultiByte(pIKspl, 5, euro.data(), -1, out, &len), 0u);
                  EXPECT_EQ(std::string(out, len), "\xCC");
                  len = sizeof(out);
                  ASSERT_EQ(KsoWideCharToMultiByte(pIKspl, 4, euro.data(), -1, out, &len), 0u);
                  EXPECT_EQ(std::string(out, len), "\x88");
                  WCHAR wout[4];
                  len = 4;
                  char cc[] = "\xCC";
                  ASSERT_EQ(KsoMultiByteToWideChar(pIKspl, 2, cc, -1, wout, &len), 0u);
                  EXPECT_EQ(wout[0], 0x20AC);
              }),
              0);
}

TEST_F(CodePageTest, EnvironmentWithLogOn) {
    EXPECT_EQ(KsplRunInChild([] {
                  LogCapture log;
                  // Present with an empty value still turns the log on.
                  ASSERT_EQ(RunSetup("866", ""), 0);
                  const Lines expected = {
                      {kInfo, "Obtaining OEM Code Page setting from ZELTA_CODE_PAGE environment variable\n"},
                      {kInfo, "ZELTA_CODE_PAGE=866\n"},
                      {kInfo, "Setting OEM Code Page to 866\n"},
                      {kInfo, "Setting ANSI Code Page to WINDOWS-1251\n"},
                  };
                  EXPECT_EQ(log.Messages(), expected);
              }),
              0);
}

// A name iconv does not know: both code pages fall back to ASCII; the
// OEM lines appear, no ANSI error since the fallback converts.
TEST_F(CodePageTest, UnknownNameFallsBack) {
    EXPECT_EQ(KsplRunInChild([] {
                  LogCapture log;
                  ASSERT_EQ(RunSetup("NO-SUCH-CP", "1"), 0);
                  EXPECT_EQ(Str(g_pOemCodePage), "ANSI_X3.4-1968");
                  EXPECT_EQ(Str(g_pAnsiCodePage), "ANSI_X3.4-1968");
                  EXPECT_FALSE(g_oemCodePageSupportsEuro);
                  EXPECT_FALSE(g_ansiCodePageSupportsEuro);
                  const Lines expected = {
                      {kInfo, "Obtaining OEM Code Page setting from ZELTA_CODE_PAGE environment variable\n"},
                      {kInfo, "ZELTA_CODE_PAGE=NO-SUCH-CP\n"},
                      {kErr, "CodePageValid: Unable to open conversion descriptor NO-SUCH-CP-UNICODE\n"},
                      {kErr, "Did not find support for NO-SUCH-CP in the system, setting OEM Code Page to ANSI_X3.4-1968\n"},
                      {kErr, "Either add support for the code page or modify the configuration of the system\n"},
                      {kErr, "Note: You can set the OEM Code Page Setting via the ZELTA_CODE_PAGE variable\n"},
                      {kInfo, "Setting OEM Code Page to ANSI_X3.4-1968\n"},
                      {kInfo, "Setting ANSI Code Page to ANSI_X3.4-1968\n"},
                  };
                  EXPECT_EQ(log.Messages(), expected);
              }),
              0);
    EXPECT_EQ(KsplRunInChild([] {
                  LogCapture log;
                  ASSERT_EQ(RunSetup("NO-SUCH-CP", nullptr), 0);
                  EXPECT_EQ(Str(g_pOemCodePage), "ANSI_X3.4-1968");
                  // The validity check logs whatever the log setting says.
                  const Lines expected = {
                      {kErr, "CodePageValid: Unable to open conversion descriptor NO-SUCH-CP-UNICODE\n"},
                  };
                  EXPECT_EQ(log.Messages(), expected);
              }),
              0);
}

TEST_F(CodePageTest, LocaleDecidesWithoutTheVariable) {
    EXPECT_EQ(KsplRunInChild([] {
                  for (const char* unset : {static_cast<const char*>(nullptr), ""}) {
                      SCOPED_TRACE(unset == nullptr ? "unset" : "empty");
                      LogCapture log;
                      ASSERT_EQ(RunSetup(unset, "yes", "C"), 0);
                      EXPECT_EQ(Str(g_pOemCodePage), "ANSI_X3.4-1968");
                      EXPECT_EQ(Str(g_pAnsiCodePage), "ANSI_X3.4-1968");
                      EXPECT_FALSE(g_oemCodePageSupportsEuro);
                      EXPECT_FALSE(g_ansiCodePageSupportsEuro);
                      const Lines expected = {
                          {kInfo, "Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n"},
                          {kInfo, "OEM Code Page setting obtained from locale settings = ANSI_X3.4-1968\n"},
                          {kInfo, "Setting OEM Code Page to ANSI_X3.4-1968\n"},
                          {kInfo, "Setting ANSI Code Page to ANSI_X3.4-1968\n"},
                      };
                      EXPECT_EQ(log.Messages(), expected);
                  }
              }),
              0);
}

TEST_F(CodePageTest, Utf8Locale) {
    if (!HaveUtf8Locale()) GTEST_SKIP() << "no C.UTF-8 locale";
    EXPECT_EQ(KsplRunInChild([] {
                  LogCapture log;
                  ASSERT_EQ(RunSetup("", nullptr, "C.UTF-8"), 0);
                  EXPECT_EQ(Str(g_pOemCodePage), "UTF-8");
                  EXPECT_EQ(Str(g_pAnsiCodePage), "UTF-8");
                  EXPECT_TRUE(g_oemCodePageSupportsEuro);
                  EXPECT_TRUE(g_ansiCodePageSupportsEuro);
                  EXPECT_TRUE(log.Messages().empty());
                  // The variable overrides the locale.
                  ASSERT_EQ(RunSetup("850", nullptr, "C.UTF-8"), 0);
                  EXPECT_EQ(Str(g_pOemCodePage), "850");
                  EXPECT_EQ(Str(g_pAnsiCodePage), "WINDOWS-1252");
              }),
              0);
}

// Only an exhausted heap fails the setup; it then leaves nothing behind.
TEST_F(CodePageTest, AllocationFailure) {
    EXPECT_EQ(KsplRunInChild([] {
                  static int allowed;
                  KsplSetCodePageAllocHook([](size_t size) -> void* {
                      return allowed-- > 0 ? std::malloc(size) : nullptr;
                  });
                  for (int ok : {0, 1}) {
                      SCOPED_TRACE(ok);
                      LogCapture log;
                      allowed = ok;
                      EXPECT_EQ(RunSetup("850", ""), -1);
                      EXPECT_EQ(g_pOemCodePage, nullptr);
                      EXPECT_EQ(g_pAnsiCodePage, nullptr);
                      EXPECT_EQ(log.Count("Unable to allocate buffer for code page string"), 1u);
                      EXPECT_EQ(log.Messages().back(),
                                std::make_pair(kErr, std::string("Unable to allocate buffer for code page string")));
                      // Without the log the failure is silent.
                      LogCapture quiet;
                      allowed = ok;
                      EXPECT_EQ(RunSetup("850", nullptr), -1);
                      EXPECT_TRUE(quiet.Messages().empty());
                      // Release after a failed setup frees nothing twice.
                      UnInitCharConvInfrastructure();
                  }
                  KsplSetCodePageAllocHook(nullptr);
                  EXPECT_EQ(RunSetup("850", nullptr), 0);
                  EXPECT_EQ(Str(g_pAnsiCodePage), "WINDOWS-1252");
              }),
              0);
}

TEST_F(CodePageTest, ReleaseTwiceKeepsEuroFlags) {
    EXPECT_EQ(KsplRunInChild([] {
                  ASSERT_EQ(RunSetup("ISO-8859-15", nullptr), 0);
                  ASSERT_TRUE(g_oemCodePageSupportsEuro);
                  UnInitCharConvInfrastructure();
                  EXPECT_EQ(g_pOemCodePage, nullptr);
                  EXPECT_EQ(g_pAnsiCodePage, nullptr);
                  EXPECT_TRUE(g_oemCodePageSupportsEuro);
                  EXPECT_TRUE(g_ansiCodePageSupportsEuro);
                  UnInitCharConvInfrastructure();
                  EXPECT_EQ(g_pOemCodePage, nullptr);
              }),
              0);
}

TEST_F(CodePageTest, ValidityAndEuroChecks) {
    LogCapture log;
    for (const char* page : {"ANSI_X3.4-1968", "WINDOWS-1252", "866", "UTF-8", "UNICODE"}) {
        EXPECT_TRUE(CodePageValid(const_cast<char*>(page))) << page;
    }
    EXPECT_TRUE(log.Messages().empty());
    char bogus[] = "NO-SUCH-CP";
    EXPECT_FALSE(CodePageValid(bogus));
    EXPECT_FALSE(CheckCodePageEuroSupport(bogus));
    const Lines expected = {
        {kErr, "CodePageValid: Unable to open conversion descriptor NO-SUCH-CP-UNICODE\n"},
        {kErr, "CheckCodePageEuroSupport: Unable to open conversion descriptor\n"},
    };
    EXPECT_EQ(log.Messages(), expected);

    struct Case {
        const char* page;
        BOOLEAN euro;
    };
    for (Case c : {Case{"ANSI_X3.4-1968", FALSE}, Case{"ISO-8859-1", FALSE}, Case{"437", FALSE},
                   Case{"WINDOWS-1252", TRUE}, Case{"ISO-8859-15", TRUE}, Case{"UTF-8", TRUE},
                   Case{"WINDOWS-1251", TRUE}}) {
        EXPECT_EQ(CheckCodePageEuroSupport(const_cast<char*>(c.page)), c.euro) << c.page;
    }
}

}  // namespace
