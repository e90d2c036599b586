#include "tests/support/sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static const char g_szInside[] = "KS_TEST_SANDBOX";

static bool TestRaiseLoopback() {
    const int lSocket = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq stReq = {};
    strcpy(stReq.ifr_name, "lo");
    stReq.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool bDone = ioctl(lSocket, SIOCSIFFLAGS, &stReq) == 0;
    close(lSocket);
    return bDone;
}

// unshare(1) would make "/" private, which fails in a chroot whose "/" is no mount point: TestKeepMountsInside
// does it instead.
static const char g_szPropagation[] = "--propagation=unchanged";

// How unshare(1) gets us namespaces here: as root, or as an ordinary user who becomes root inside. Null if it
// does not.
static const char *TestUnshareFlags() {
    for (const char *pcFlags : {"-mn", "-Urmn"}) {
        const std::string szTry =
            std::string("unshare ") + g_szPropagation + " " + pcFlags + " true 2>/dev/null";
        if (system(szTry.c_str()) == 0) {
            return pcFlags;
        }
    }
    return nullptr;
}

static void TestRunInside(const char *pcFlags, char **argv) {
    setenv(g_szInside, "1", 1);
    std::string szSelf(4096, '\0');
    szSelf.resize(static_cast<size_t>(readlink("/proc/self/exe", szSelf.data(), szSelf.size())));
    std::vector<char *> apcArg = {strdup("unshare"), strdup(g_szPropagation), strdup(pcFlags), strdup("--"),
                                  szSelf.data()};
    for (char **ppcArg = argv + 1; *ppcArg != nullptr; ppcArg++) {
        apcArg.push_back(*ppcArg);
    }
    apcArg.push_back(nullptr);
    execvp("unshare", apcArg.data());
    perror("unshare");
    exit(1);
}

// Makes every mount of this namespace private, so that none made here shows outside. Only a mount's root can be
// named for that; a child process leaves a chroot for the namespace's own root, which always is one.
static bool TestKeepMountsInside() {
    const pid_t lPid = fork();
    if (lPid == 0) {
        const int lOwn = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
        const bool bDone = unshare(CLONE_FS) == 0 && setns(lOwn, CLONE_NEWNS) == 0 &&
                           mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0;
        _exit(bDone ? 0 : 1);
    }
    int lStatus = -1;
    return waitpid(lPid, &lStatus, 0) == lPid && lStatus == 0;
}

// An empty /tmp, except that a checkout which lies there stays where it is.
static bool TestEmptyTmp() {
    static const std::string szTmp = "/tmp/";
    char acSelf[4096] = {};
    std::string szKeep;
    if (readlink("/proc/self/exe", acSelf, sizeof(acSelf) - 1) > 0 && szTmp.compare(0, 5, acSelf, 5) == 0) {
        szKeep = acSelf;
        szKeep.resize(szKeep.find('/', szTmp.size()));
    }
    const int lKeep = szKeep.empty() ? -1 : open(szKeep.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) {
        return false;
    }
    if (szKeep.empty()) {
        return true;
    }
    const std::string szFd = "/proc/self/fd/" + std::to_string(lKeep);
    return mkdir(szKeep.c_str(), 0755) == 0 && mount(szFd.c_str(), szKeep.c_str(), "", MS_BIND, nullptr) == 0;
}

// A bare chroot has no pseudo-terminals.
static bool TestHaveTerminals() {
    return access("/dev/pts/ptmx", F_OK) == 0 || mount("devpts", "/dev/pts", "devpts", 0, nullptr) == 0;
}

bool TestEnterSandbox(char **argv) {
    if (getenv(g_szInside) != nullptr) {
        if (TestRaiseLoopback() && TestKeepMountsInside() &&
            mount("tmpfs", "/var/log", "tmpfs", 0, nullptr) == 0 && TestEmptyTmp() && TestHaveTerminals()) {
            return true;
        }
        unsetenv(g_szInside); // namespaces alone do not help
        return false;
    }
    const char *pcFlags = TestUnshareFlags();
    if (pcFlags != nullptr) {
        TestRunInside(pcFlags, argv);
    }
    return false;
}
