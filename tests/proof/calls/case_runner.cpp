#include "proof/calls/case_runner.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>

#include "support/allocation_failure.h"

namespace {

constexpr unsigned int kLimitInSec = 60;

char g_caseName[256];

void endLateCase(int) {
    const char text[] = "no end of: ";
    ssize_t ignored = write(STDERR_FILENO, text, sizeof(text) - 1);
    ignored = write(STDERR_FILENO, g_caseName, std::strlen(g_caseName));
    ignored = write(STDERR_FILENO, "\n", 1);
    static_cast<void>(ignored);
    _exit(3);
}

std::set<int> openDescriptors() {
    std::set<int> descriptors;
    DIR* p_folder = opendir("/proc/self/fd");
    while (const dirent* p_entry = readdir(p_folder)) descriptors.insert(std::atoi(p_entry->d_name));
    descriptors.erase(dirfd(p_folder));
    closedir(p_folder);
    return descriptors;
}

/// Closes what is open now and was not before.
unsigned int closeNew(const std::set<int>& before) {
    unsigned int closed = 0;
    for (const int descriptor : openDescriptors())
        if (before.count(descriptor) == 0 && close(descriptor) == 0) ++closed;
    return closed;
}

}  // namespace

Verdict_ CaseRunner_::play(const std::string& name, Transport_ transport, const Case_& play) {
    g_caseName[name.copy(g_caseName, sizeof(g_caseName) - 1)] = '\0';
    std::signal(SIGALRM, endLateCase);
    alarm(kLimitInSec);

    Verdict_ verdict;
    unsigned int expectedLeft = 0;
    const std::set<int> before = openDescriptors();
    const long liveBefore = liveAllocations();
    inFreshThread([&] {
        try {
            Scene_ scene(transport, verdict);
            play(scene);
            scene.expect(scene.calls().isCarriedOut(), "all planned calls are made");
            scene.close();
            scene.expectNoRecords("close");
            scene.works();
            scene.close();
            scene.expectNoRecords("the last close");
            expectedLeft = scene.leftDescriptors();
        } catch (const std::exception& fault) {
            verdict.expect(false, fault.what());
        }
    });
    const long lost = liveAllocations() - liveBefore;
    if (verdict.isGood()) verdict.expect(lost == 0, std::to_string(lost) + " blocks of memory are lost");
    const unsigned int left = closeNew(before);
    verdict.expect(left == expectedLeft, std::to_string(left) + " descriptors are left open, expected " +
                                             std::to_string(expectedLeft));
    m_left += expectedLeft;
    alarm(0);
    return verdict;
}
