#include "sdk/RuleCheck.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"

// Last: libyara's headers define short macros that clash with Poco.
#include <yara.h>

namespace SDK {

namespace {

const char* const kSource = "sdk/src/RuleCheck";
const char kCompiledMagic[4] = {'Y', 'A', 'R', 'A'};
// Loading a real library takes well under a second; a child still busy
// after this is treated like one that crashed.
const int kCheckTimeoutMs = 30000;
const int kScanTimeoutS = 10;

// Child exit codes: 0 fine, kScanFailed when the scan reported an error,
// kLoadFailedBase + libyara's code when the load refused the file. Anything
// else (a signal, a sanitizer's exit code) means it crashed.
const int kScanFailed = 99;
const int kLoadFailedBase = 100;

// Text the rules run over in the child: a bit of each language and some
// binary, so that conditions and regular expressions are evaluated.
const char kSample[] =
    "<?php @eval($_POST['x']); echo base64_decode('PD9waHA='); ?>\n"
    "<% Runtime.getRuntime().exec(request.getParameter(\"c\")); %>\n"
    "<%@ Page Language=\"C#\" %><% Response.Write(\"x\"); %>\n"
    "#!/bin/sh\nexec /bin/sh -i\n\x00\x01\x02\xff\xfe\x7f"
    "MZ\x90\x00\x03\x00\x00\x00";

struct PreadStream {
    int fd;
    off_t offset;
};

size_t PreadRead(void* ptr, size_t size, size_t count, void* userData)
{
    if (size == 0 || count == 0) {
        return 0;
    }
    auto* stream = static_cast<PreadStream*>(userData);
    char* out = static_cast<char*>(ptr);
    const size_t wanted = size * count;
    size_t got = 0;
    while (got < wanted) {
        const ssize_t n = pread(stream->fd, out + got, wanted - got, stream->offset);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
        stream->offset += n;
    }
    return got / size;
}

int IgnoreMatches(YR_SCAN_CONTEXT*, int, void*, void*)
{
    return CALLBACK_CONTINUE;
}

// Runs in the forked child: libyara and system calls only, then _exit.
[[noreturn]] void CheckInChild(int fd)
{
    struct rlimit noCore {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);  // a crash here is expected, not worth a core file
    // libyara's assertion text would land in the agent's stderr; the
    // parent names the file and the signal instead.
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull >= 0) {
        dup2(devNull, STDERR_FILENO);
    }
    PreadStream state{fd, 0};
    YR_STREAM stream{};
    stream.user_data = &state;
    stream.read = PreadRead;
    YR_RULES* rules = nullptr;
    const int loaded = yr_rules_load_stream(&stream, &rules);
    if (loaded != ERROR_SUCCESS) {
        _exit(kLoadFailedBase + (loaded < 99 ? loaded : 99));
    }
    const int scanned = yr_rules_scan_mem(rules, reinterpret_cast<const uint8_t*>(kSample), sizeof(kSample) - 1,
                                          0, IgnoreMatches, nullptr, kScanTimeoutS);
    yr_rules_destroy(rules);
    _exit(scanned == ERROR_SUCCESS || scanned == ERROR_TOO_MANY_MATCHES ? 0 : kScanFailed);
}

// waitpid with a deadline; kills the child when it passes. The raw status,
// or -1 when the child could not be waited for.
int WaitChild(pid_t pid, bool& timedOut)
{
    timedOut = false;
    int status = 0;
    long waitedMs = 0;
    long stepMs = 1;
    for (;;) {
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            return status;
        }
        if (r < 0 && errno != EINTR) {
            return -1;
        }
        if (waitedMs >= kCheckTimeoutMs) {
            timedOut = true;
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return status;
        }
        const struct timespec pause {0, stepMs * 1000000L};
        nanosleep(&pause, nullptr);
        waitedMs += stepMs;
        stepMs = stepMs < 50 ? stepMs * 2 : 50;
    }
}

bool Sha256OfFd(int fd, std::string& hex)
{
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    char buf[65536];
    off_t offset = 0;
    for (;;) {
        const ssize_t n = pread(fd, buf, sizeof(buf), offset);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        engine.update(buf, static_cast<unsigned>(n));
        offset += n;
    }
    hex = Poco::DigestEngine::digestToHex(engine.digest());
    return true;
}

std::string Describe(int status, bool timedOut)
{
    if (timedOut) {
        return "the check did not finish within " + std::to_string(kCheckTimeoutMs / 1000) + " s";
    }
    if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        return "loading it killed the checking process (signal " + std::to_string(sig) + ", " + strsignal(sig) + ")";
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (code == kScanFailed) {
        return "it loaded but failed to scan a sample";
    }
    if (code > kLoadFailedBase && code < kLoadFailedBase + 100) {
        const int yaraCode = code - kLoadFailedBase;
        if (yaraCode == ERROR_UNSUPPORTED_FILE_VERSION) {
            return "it was compiled by another YARA version";
        }
        return "libyara refused it (error " + std::to_string(yaraCode) + ")";
    }
    return "the checking process failed (exit status " + std::to_string(code) + ")";
}

}  // namespace

std::string RejectedRulesMarker(const std::string& path, const std::string& sha256)
{
    return path + "." + sha256 + ".rejected";
}

Status CheckCompiledRules(int fd, const std::string& path)
{
    char magic[sizeof(kCompiledMagic)] = {};
    if (pread(fd, magic, sizeof(magic), 0) != static_cast<ssize_t>(sizeof(magic)) ||
        memcmp(magic, kCompiledMagic, sizeof(magic)) != 0) {
        return Status::Ok();  // rule source, or too short to be compiled rules
    }
    std::string digest;
    if (!Sha256OfFd(fd, digest)) {
        return Status::Error("cannot read compiled rule library " + path + ": " + ErrnoText(errno));
    }
    const std::string marker = RejectedRulesMarker(path, digest);
    struct stat st;
    if (lstat(marker.c_str(), &st) == 0) {
        return Status::Error("compiled rule library " + path + " (sha256 " + digest +
                             ") failed its check before and is not loaded again; remove " + marker +
                             " to check it once more");
    }

    const pid_t pid = fork();
    if (pid < 0) {
        return Status::Error("cannot start the check of compiled rule library " + path + ": " + ErrnoText(errno) +
                             "; not loaded");
    }
    if (pid == 0) {
        CheckInChild(fd);
    }
    bool timedOut = false;
    const int status = WaitChild(pid, timedOut);
    if (status < 0) {
        return Status::Error("cannot wait for the check of compiled rule library " + path + ": " +
                             ErrnoText(errno) + "; not loaded");
    }
    if (!timedOut && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return Status::Ok();
    }
    // Out of memory in the child says nothing about the file: try again later.
    const bool remember = timedOut || !WIFEXITED(status) ||
                          WEXITSTATUS(status) != kLoadFailedBase + ERROR_INSUFFICIENT_MEMORY;
    std::string message = "compiled rule library " + path + " (sha256 " + digest + ") is damaged: " +
                          Describe(status, timedOut) + "; not loaded";
    if (remember) {
        UniqueFd mark(open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (mark.Valid() || errno == EEXIST) {
            message += ", and not tried again while " + marker + " exists";
        } else {
            SDK_LOG(LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_WARNING, kSource,
                    "Cannot create %s (%s): the damaged rule library %s will be checked again at each load.",
                    marker, ErrnoText(errno), path);
        }
    }
    return Status::Error(message);
}

}  // namespace SDK
