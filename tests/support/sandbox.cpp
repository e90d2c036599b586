#include "tests/support/sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

// How unshare(1) gets us namespaces here: as root, or as an ordinary user who becomes one inside. Null when it
// does not.
static const char *TestUnshareFlags() {
    for (const char *pcFlags : {"-mn", "-Urmn"}) {
        if (system((std::string("unshare ") + pcFlags + " true 2>/dev/null").c_str()) == 0) {
            return pcFlags;
        }
    }
    return nullptr;
}

static void TestRunInside(const char *pcFlags, char **argv) {
    setenv(g_szInside, "1", 1);
    std::string szSelf(4096, '\0');
    szSelf.resize(static_cast<size_t>(readlink("/proc/self/exe", szSelf.data(), szSelf.size())));
    std::vector<char *> apcArg = {strdup("unshare"), strdup(pcFlags), strdup("--"), szSelf.data()};
    for (char **ppcArg = argv + 1; *ppcArg != nullptr; ppcArg++) {
        apcArg.push_back(*ppcArg);
    }
    apcArg.push_back(nullptr);
    execvp("unshare", apcArg.data());
    perror("unshare");
    exit(1);
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

bool TestEnterSandbox(char **argv) {
    if (getenv(g_szInside) != nullptr) {
        if (!TestRaiseLoopback() || mount("tmpfs", "/var/log", "tmpfs", 0, nullptr) != 0 || !TestEmptyTmp()) {
            perror("sandbox");
            exit(1);
        }
        return true;
    }
    const char *pcFlags = TestUnshareFlags();
    if (pcFlags != nullptr) {
        TestRunInside(pcFlags, argv);
    }
    return false;
}
