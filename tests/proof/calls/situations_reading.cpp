// What becomes of open() when calls for the directory file fail, and of a record when standard error does.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "proof/calls/situations.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kOpenFile[] = "bool NameDirectory_::open(const char*)";
constexpr char kReadEntry[] =
    "static bool NameDirectory_::getEntry(std::ifstream*, unsigned int&, SP_StdString_&, SP_Utf8String_&)";

Record_ badFile() {
    return directoryRecord(3, kReadEntry, "NameDirectory_::getEntry(): bad file");
}

void openingTheDirectory(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Fopen, failure.m_error);
        scene.expect(!scene.open(), "open fails");
        scene.expectRecords("failing open",
                            {directoryRecord(3, kOpenFile,
                                             "NameDirectory_::open(): can't open directory file " +
                                                 scene.directoryPath() + ".")});
        scene.close();
    });
    scene.works();
}

/// What was read before the error stands, which here is nothing: the component has no address. The stream of
/// the standard library makes an interrupted read again by itself.
void readingTheDirectory(Scene_& scene, const Failure_& failure) {
    scene.calls().fail(Calls_::Read, failure.m_error, 0, failure.m_times);
    scene.expect(scene.open(), "open succeeds");
    if (failure.m_error == EINTR) {
        scene.expectRecords("open", {scene.listening()});
    } else {
        scene.expectRecords("open",
                            {badFile(), warning(kOpenDefault, "No default transport address will be used")});
    }
    scene.close();
    scene.works();
}

/// The entries stand in what was read first.
void readingOnInTheDirectory(Scene_& scene, const Failure_& failure) {
    std::vector<std::string> lines = {scene.peer() + " peer"};
    lines.insert(lines.end(), 200, "# " + std::string(98, '-'));
    scene.writeDirectory(lines);
    scene.calls().fail(Calls_::Read, failure.m_error, 1, failure.m_times);
    scene.expect(scene.open(), "open succeeds");
    if (failure.m_error == EINTR) {
        scene.expectRecords("open", {scene.listening()});
    } else {
        scene.expectRecords("open", {badFile(), scene.listening()});
    }
    scene.works();
}

void closingTheDirectory(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().failAfterwards(Calls_::Fclose, failure.m_error);
        scene.opened();
        scene.close();
    });
    scene.works();
}

/// Standard error goes to a file for as long as this lives.
class StandardErrorIn_ {
public:
    explicit StandardErrorIn_(const std::string& path) : m_path(path), m_saved(dup(STDERR_FILENO)) {
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, STDERR_FILENO);
        ::close(file);
    }
    ~StandardErrorIn_() {
        dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    StandardErrorIn_(const StandardErrorIn_&) = delete;
    StandardErrorIn_& operator=(const StandardErrorIn_&) = delete;

    std::string text() const {
        std::ifstream file(m_path);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

private:
    std::string m_path;
    int m_saved;
};

/// A record that cannot be written is lost, and nothing else: neither the result nor errno nor the next
/// record.
void writingARecord(Scene_& scene, const Failure_& failure) {
    scene.withoutCapture([&] {
        const StandardErrorIn_ output(scene.ownPath() + ".log");
        const auto fails = [&] {
            errno = EXDEV;
            return !scene.terminal().open(nullptr, nullptr) && errno == EXDEV;
        };
        scene.calls().fail(Calls_::Write, failure.m_error, 0, failure.m_times);
        eachTime(failure, [&] { scene.expect(fails(), "open fails and keeps errno"); });
        scene.expect(output.text().empty(), "the record is lost");
        scene.expect(fails(), "open fails and keeps errno");
        scene.expect(
            output.text().rfind("vekmsg error: VekmsgTerminalImpl_::open() null p_componentName [", 0) == 0,
            "the next record is written: " + output.text());
    });
    scene.works();
}

}  // namespace

Situations_ readingSituations() {
    return {
        {Calls_::Fopen, kLocal, "open: opens the directory", openingTheDirectory},
        {Calls_::Read, kLocal, "open: reads the directory", readingTheDirectory},
        {Calls_::Read, kLocal, "open: reads the rest of the directory", readingOnInTheDirectory},
        {Calls_::Fclose, kLocal, "open: closes the directory", closingTheDirectory},
        {Calls_::Write, kLocal, "open: writes a record to standard error", writingARecord},
    };
}
