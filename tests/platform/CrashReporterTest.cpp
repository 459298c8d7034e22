#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "tavrel/platform/CrashReporter.h"
#include "tavrel/platform/Properties.h"
#include "tavrel/platform/ULogger.h"

namespace tavrel::test {
namespace {

using NSCam::NSTavrel::tavrel_ruvex_trigger_exception;

constexpr mode_t kDirMode = 0700;

// Two reports into the configured folder, then one into a folder that does not exist;
// errno must come out as it went in.
void reportCrashes() {
    errno = EAGAIN;
    tavrel_ruvex_trigger_exception("varnok",
                                   "MEDIA_REQUEST_IOC_QUEUE err=%d(%s) Please check "
                                   "VarnokKernel.\nCRDISPATCH_KEY:VarnokKernel",
                                   -5, "Input/output error");
    tavrel_ruvex_trigger_exception("other", "second %d", 2);
    char dir[256];
    host::property_get("tavrel.host.crash.dir", dir, sizeof(dir));
    host::property_set("tavrel.host.crash.dir", (std::string(dir) + "/gone").c_str());
    tavrel_ruvex_trigger_exception("third", "lost");
    std::printf("errno=%d\n", errno);
}
const ChildMode kCrashMode("crash-report", reportCrashes);

// `content` with its "time: " line checked against the UTC stamp format and removed.
std::string withoutTime(const std::string& content) {
    const size_t start = content.find("time: ");
    const size_t end = content.find('\n', start);
    if (start == std::string::npos || end == std::string::npos) return "no time: " + content;
    const std::string line = content.substr(start, end - start);
    if (matchWhole(line, "time: [0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z").empty()) {
        return "bad time: " + line;
    }
    return content.substr(0, start) + content.substr(end + 1);
}

TEST(CrashReporterTest, ReportGoesToTheAndroidLogAtFatalPriorityAndToNumberedFiles) {
    TempDir dir;
    const std::string reports = dir.path() + "/reports";
    ASSERT_EQ(0, mkdir(reports.c_str(), kDirMode));
    const ChildResult child =
        runWithProperties("crash-report", "tavrel.host.crash.dir=" + reports + "\n", dir);
    ASSERT_EQ(0, child.status) << child.err;
    EXPECT_EQ("errno=11\n", child.out);

    const std::string pid = std::to_string(child.pid);
    std::vector<std::string> logged = splitLines(child.err);
    for (size_t i = 0; i < logged.size(); ++i) {
        // The Android log continues a text's second line without a header.
        if (i != 1) logged[i] = androidLogEntry(logged[i], "tavrel-crash", child.pid);
    }
    EXPECT_EQ((std::vector<std::string>{
                  "F varnok: MEDIA_REQUEST_IOC_QUEUE err=-5(Input/output error) Please check "
                  "VarnokKernel.",
                  "CRDISPATCH_KEY:VarnokKernel", "F other: second 2", "F third: lost",
                  "E cannot create " + reports + "/gone/tavrel-crash-" + pid +
                      "-3.txt: No such file or directory"}),
              logged);

    EXPECT_EQ("module: varnok\npid: " + pid + "\ntid: " + pid +
                  "\ntext:\nMEDIA_REQUEST_IOC_QUEUE err=-5(Input/output error) Please check "
                  "VarnokKernel.\nCRDISPATCH_KEY:VarnokKernel\n",
              withoutTime(readFile(reports + "/tavrel-crash-" + pid + "-1.txt")));
    EXPECT_EQ("module: other\npid: " + pid + "\ntid: " + pid + "\ntext:\nsecond 2\n",
              withoutTime(readFile(reports + "/tavrel-crash-" + pid + "-2.txt")));
}

// Records the flush that ending the service must make, straight on stderr's descriptor
// so that it overtakes whatever the stdio buffer holds.
class FlushReporter : public NSCam::Utils::ULog::ULogger {
public:
    void flush(int reason) override {
        const std::string text = "flush(" + std::to_string(reason) + ")\n";
        ASSERT_EQ(static_cast<ssize_t>(text.size()),
                  ::write(STDERR_FILENO, text.data(), text.size()));
    }
};

TEST(CrashReporterDeathTest, TerminateServiceFlushesLoggerThenStdioAndExitsWith70) {
    EXPECT_EXIT(
        {
            static char buffer[BUFSIZ];
            std::setvbuf(stderr, buffer, _IOFBF, sizeof(buffer));
            static FlushReporter reporter;
            NSCam::Utils::ULog::ULogger::sULogger.store(&reporter);
            std::fputs("held in the stdio buffer\n", stderr);
            NSCam::Utils::terminateService();
        },
        testing::ExitedWithCode(NSCam::Utils::kTerminateServiceExitStatus),
        "^flush\\(1\\)\nheld in the stdio buffer\n$");
}

}  // namespace
}  // namespace tavrel::test
