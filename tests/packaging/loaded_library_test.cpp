#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/temporary_folder.h"
#include "vekmsg/c_binding.h"

// The finished library in a program that is not linked to it, as a plug-in is.

namespace {

class Library_ {
public:
    Library_() : m_p_handle(dlopen(VEKMSG_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
    ~Library_() { unload(); }
    Library_(const Library_&) = delete;
    Library_& operator=(const Library_&) = delete;

    bool isThere() const { return m_p_handle != nullptr; }

    template <class Function>
    Function* find(const char* p_name) const {
        return reinterpret_cast<Function*>(dlsym(m_p_handle, p_name));
    }

    void unload() {
        if (m_p_handle != nullptr) dlclose(m_p_handle);
        m_p_handle = nullptr;
    }

private:
    void* m_p_handle;
};

bool isMapped() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find("libvekmsg.so") != std::string::npos) return true;
    return false;
}

/// Two terminals, one message between them.
bool exchangeOne(const Library_& library, const std::string& directory) {
    const auto open = library.find<decltype(vekmsg_terminal_open)>("vekmsg_terminal_open");
    const auto close = library.find<decltype(vekmsg_terminal_close)>("vekmsg_terminal_close");
    const auto create =
        library.find<decltype(vekmsg_terminal_create_message)>("vekmsg_terminal_create_message");
    const auto element =
        library.find<decltype(vekmsg_message_create_element)>("vekmsg_message_create_element");
    const auto setText =
        library.find<decltype(vekmsg_element_set_value_as_string)>("vekmsg_element_set_value_as_string");
    const auto setPayload = library.find<decltype(vekmsg_message_set_payload)>("vekmsg_message_set_payload");
    const auto setDestination =
        library.find<decltype(vekmsg_message_set_destination)>("vekmsg_message_set_destination");
    const auto send = library.find<decltype(vekmsg_terminal_send_message)>("vekmsg_terminal_send_message");
    const auto receive =
        library.find<decltype(vekmsg_terminal_receive_message)>("vekmsg_terminal_receive_message");
    const auto release = library.find<decltype(vekmsg_free_handle)>("vekmsg_free_handle");
    const auto* p_alpha = reinterpret_cast<const utf8_char_*>("alpha");
    const auto* p_beta = reinterpret_cast<const utf8_char_*>("beta");

    void* p_sender = open(p_alpha, directory.c_str());
    void* p_receiver = open(p_beta, directory.c_str());
    void* p_message = create(p_sender);
    void* p_element = element(p_message, 1);
    setText(p_element, p_alpha);
    setPayload(p_message, p_element);
    setDestination(p_message, p_beta);
    const bool isSent = send(p_sender, p_message) == VEKMSG_STATUS_SUCCESS;
    void* p_received = nullptr;
    eventually(
        [&] { return receive(p_receiver, &p_received) != VEKMSG_STATUS_SUCCESS || p_received != nullptr; });
    const bool isReceived = p_received != nullptr;
    for (void* p_handle : {p_received, p_element, p_message}) release(p_handle);
    close(p_receiver);
    close(p_sender);
    return isSent && isReceived;
}

class LoadedLibrary : public testing::Test {
protected:
    LoadedLibrary()
        : m_directory(m_folder.writeFile("names", {m_folder.localAddress("alpha") + " alpha",
                                                   m_folder.localAddress("beta") + " beta"})) {}

    TemporaryFolder_ m_folder;
    std::string m_directory;
};

}  // namespace

TEST_F(LoadedLibrary, goesWithEverythingWhenItsThreadHasEnded) {
    const long before = liveAllocations();
    for (unsigned int round = 0; round < 10; ++round) {
        ASSERT_FALSE(isMapped());
        Library_ library;
        ASSERT_TRUE(library.isThere());
        bool isDone = false;

        inFreshThread([&] { isDone = exchangeOne(library, m_directory); });
        library.unload();

        EXPECT_TRUE(isDone);
        EXPECT_FALSE(isMapped()) << round;
    }
    EXPECT_EQ(liveAllocations(), before);
}

// A thread that comes later stands where the one was that has ended.
TEST_F(LoadedLibrary, servesTheThreadsAfterTheOneThatLoadedIt) {
    const long before = liveAllocations();
    {
        std::unique_ptr<Library_> library;
        unsigned int done = 0;
        for (unsigned int thread = 0; thread < 4; ++thread) {
            inFreshThread([&] {
                if (!library) library.reset(new Library_);
                if (exchangeOne(*library, m_directory) && exchangeOne(*library, m_directory)) ++done;
            });
        }

        EXPECT_EQ(done, 4U);
        library->unload();
        EXPECT_FALSE(isMapped());
    }
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(LoadedLibrary, neverUsedItGoesAtOnce) {
    Library_ library;
    EXPECT_TRUE(isMapped());

    library.unload();

    EXPECT_FALSE(isMapped());
}

TEST_F(LoadedLibrary, unloadedByTheThreadThatUsedItItStaysUntilThatThreadEnds) {
    bool isDone = false;
    bool isKept = false;
    inFreshThread([&] {
        Library_ library;
        isDone = exchangeOne(library, m_directory);
        library.unload();
        isKept = isMapped();
    });

    EXPECT_TRUE(isDone);
    EXPECT_TRUE(isKept);  // the memory on the thread's lists goes back at its end, by the library's code
    Library_ again;
    again.unload();
    EXPECT_FALSE(isMapped());
}

TEST_F(LoadedLibrary, anExitAfterUnloadingIsAnOrdinaryOne) {
    ChildProcess_ child([&]() -> int {
        Library_ library;
        const bool isDone = exchangeOne(library, m_directory);
        library.unload();
        std::exit(isDone ? 8 : 1);
    });

    EXPECT_EQ(child.wait(), 8);
}
