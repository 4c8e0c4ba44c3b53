#include "directory/name_directory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "foundation/utf8_name.h"
#include "support/allocation_failure.h"
#include "support/record_capture.h"
#include "support/temporary_folder.h"

namespace {

constexpr char kOpen[] = "bool NameDirectory_::open(const char*)";
#ifdef __clang__
#define ADDRESS_NAME "SP_StdString_"
#define LIST "std::list"
#else
#define ADDRESS_NAME "SmartPointer_<std::__cxx11::basic_string<char>>"
#define LIST "std::__cxx11::list"
#endif
constexpr char kAddresses[] =
    "bool NameDirectory_::getTransportAddresses(SP_Utf8String_, " LIST "<" ADDRESS_NAME ">&)";
constexpr char kRead[] =
    "static bool NameDirectory_::getEntry(std::ifstream*, unsigned int&, SP_StdString_&, SP_Utf8String_&)";
constexpr char kReadLine[] =
    "static bool NameDirectory_::getEntry(const std::string&, unsigned int, SP_StdString_&, SP_Utf8String_&)";
constexpr char kReadName[] =
    "static bool NameDirectory_::getEntry(const char*, std::size_t, SP_Utf8String_&)";

using Texts_ = std::vector<std::string>;

Record_ record(int severity, const std::string& signature, const std::string& text) {
    return Record_(severity, "name_directory.cpp", signature, text);
}

Record_ invalidLine(unsigned int number, const std::string& line) {
    return record(4, kReadLine,
                  "VEK Directory file line " + std::to_string(number) + " is invalid. Ignored " + line);
}

Record_ tooLong(unsigned int number, unsigned int length) {
    return record(4, kReadLine,
                  "VEK Directory file line " + std::to_string(number) + " is too long (" +
                      std::to_string(length) + "). Ignored");
}

Record_ badFile() {
    return record(3, kRead, "NameDirectory_::getEntry(): bad file");
}

SP_Utf8String_ name(const std::string& text) {
    return createUtf8String(reinterpret_cast<const Utf8Char_*>(text.data()), text.size());
}

std::string text(const SP_StdString_& sp_text) {
    return sp_text ? *sp_text : "(null)";
}

std::string text(const SP_Utf8String_& sp_text) {
    return sp_text ? std::string(sp_text->begin(), sp_text->end()) : "(null)";
}

Texts_ addressesOf(NameDirectory_& directory, const std::string& component) {
    std::list<SP_StdString_> addresses;
    EXPECT_TRUE(directory.getTransportAddresses(name(component), addresses));
    Texts_ texts;
    for (const SP_StdString_& sp_address : addresses) texts.push_back(text(sp_address));
    return texts;
}

std::string firstDefaultOf(const NameDirectory_& directory) {
    SP_StdString_ sp_address(new std::string("before"));
    EXPECT_TRUE(directory.getFirstDefaultTransportAddress(sp_address));
    return text(sp_address);
}

/// A directory file with exactly these bytes.
class NameDirectory : public testing::Test {
protected:
    std::string write(const std::string& bytes) {
        const std::string path = m_folder.path("names");
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    bool open(const std::string& bytes) { return m_directory.open(write(bytes).c_str()); }

    TemporaryFolder_ m_folder;
    NameDirectory_ m_directory;
    RecordCapture_ m_records;
};

/// One entry after the other from a file.
class NameDirectoryEntry : public NameDirectory {
protected:
    void start(const std::string& bytes) { m_file.open(write(bytes), std::ios::binary); }

    bool next() { return NameDirectory_::getEntry(&m_file, m_lineNumber, m_sp_address, m_sp_name); }

    /// Before anything was read.
    void expectBadFile() {
        m_sp_address = new std::string("before");

        EXPECT_FALSE(next());

        EXPECT_EQ(text(m_sp_address), "(null)");
        EXPECT_EQ(text(m_sp_name), "");
        EXPECT_EQ(m_lineNumber, 0U);
        EXPECT_EQ(m_records.take(), Records_{badFile()});
    }

    std::ifstream m_file;
    unsigned int m_lineNumber = 0;
    SP_StdString_ m_sp_address;
    SP_Utf8String_ m_sp_name;
};

}  // namespace

TEST_F(NameDirectory, aNewDirectoryFindsNothing) {
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "(null)");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(NameDirectory, everyKindOfLineIsRead) {
    const std::string path = m_folder.writeFile(
        "names", {"# component directory", "", "local:///var/run/comp/router.sock  router",
                  "inettcp://192.168.1.20:7000\trouter # second address",
                  "  inettcp://192.168.1.21:7000\tlogger extra words", "local:///var/run/comp/default.sock",
                  "local://a shortname", "inetudp://10.0.0.1:9#comment", " \t "});

    EXPECT_TRUE(m_directory.open(path.c_str()));

    EXPECT_EQ(m_records.take(), Records_{invalidLine(7, "local://a shortname")});
    EXPECT_EQ(addressesOf(m_directory, "router"),
              (Texts_{"local:///var/run/comp/router.sock", "inettcp://192.168.1.20:7000"}));
    EXPECT_EQ(addressesOf(m_directory, "logger"), Texts_{"inettcp://192.168.1.21:7000"});
    EXPECT_EQ(addressesOf(m_directory, "printer"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///var/run/comp/default.sock");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(NameDirectory, aMissingFileIsRefused) {
    const std::string path = m_folder.path("missing");

    EXPECT_FALSE(m_directory.open(path.c_str()));

    EXPECT_EQ(m_records.take(),
              Records_{record(3, kOpen, "NameDirectory_::open(): can't open directory file " + path + ".")});
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "(null)");
}

TEST_F(NameDirectory, aMissingFileStillEmptiesTheNames) {
    EXPECT_TRUE(open("local:///a/router router\nlocal:///a/default\n"));

    EXPECT_FALSE(m_directory.open(m_folder.path("missing").c_str()));

    EXPECT_EQ(m_records.take(), Records_{record(3, kOpen,
                                                "NameDirectory_::open(): can't open directory file " +
                                                    m_folder.path("missing") + ".")});
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///a/default");
}

TEST_F(NameDirectory, nullStandsForTheDefaultPath) {
    const char* p_defaultPath = "/etc/vek.names.directory";
    if (access(p_defaultPath, F_OK) == 0) GTEST_SKIP() << "this machine has a default directory file";

    EXPECT_FALSE(m_directory.open(nullptr));

    EXPECT_EQ(m_records.take(),
              Records_{record(
                  3, kOpen, "NameDirectory_::open(): can't open directory file /etc/vek.names.directory.")});
}

TEST_F(NameDirectory, anEmptyFileIsReadAsNothing) {
    EXPECT_TRUE(open(""));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "(null)");
}

TEST_F(NameDirectory, aFolderEndsTheReading) {
    EXPECT_TRUE(m_directory.open(m_folder.path("").c_str()));

    EXPECT_EQ(m_records.take(), Records_{badFile()});
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
}

TEST_F(NameDirectory, aLastLineWithoutLineFeedIsReadAndRecorded) {
    EXPECT_TRUE(open("local:///a/router router\nlocal:///a/logger logger"));

    EXPECT_EQ(m_records.take(), Records_{badFile()});
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{"local:///a/router"});
    EXPECT_EQ(addressesOf(m_directory, "logger"), Texts_{"local:///a/logger"});
}

TEST_F(NameDirectory, aLastCommentWithoutLineFeedIsNotRecorded) {
    EXPECT_TRUE(open("local:///a/router router\n# the end"));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{"local:///a/router"});
}

TEST_F(NameDirectory, aLineOf256CharactersIsReadAndALongerOneIgnored) {
    const std::string address = "local:///" + std::string(247 - 9, 'p');
    const std::string line = address + " router12";
    ASSERT_EQ(line.size(), 256U);

    EXPECT_TRUE(
        open(line + "\n" + line + "3\n" + std::string(100000, '#') + "\n" + std::string(257, ' ') + "\n"));

    EXPECT_EQ(m_records.take(), (Records_{tooLong(2, 257), tooLong(3, 100000), tooLong(4, 257)}));
    EXPECT_EQ(addressesOf(m_directory, "router12"), Texts_{address});
    EXPECT_EQ(addressesOf(m_directory, "router123"), Texts_{});
}

TEST_F(NameDirectory, anAddressHasTenCharactersAtLeast) {
    EXPECT_TRUE(open("local://ab router\nlocal://a router\n  local://a\t\nlocal://a#bcdef\nx\n"));

    EXPECT_EQ(m_records.take(), (Records_{invalidLine(2, "local://a router"), invalidLine(3, "  local://a\t"),
                                          invalidLine(4, "local://a#bcdef"), invalidLine(5, "x")}));
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{"local://ab"});
}

TEST_F(NameDirectory, addressesAreKeptAsTheyStand) {
    EXPECT_TRUE(open("tcp://1.2.3.4:5 router\nno address at all\nnonsense-nonsense router\n"));

    EXPECT_EQ(m_records.take(), Records_{invalidLine(2, "no address at all")});
    EXPECT_EQ(addressesOf(m_directory, "router"), (Texts_{"tcp://1.2.3.4:5", "nonsense-nonsense"}));
}

TEST_F(NameDirectory, aCommentEndsTheLineWhereverItStands) {
    EXPECT_TRUE(
        open("   # local:///a/one one\nlocal:///a/two two#local:///a/three three\nlocal:///a/four#four\n"
             "local:///a/five  # five\n"));

    EXPECT_EQ(m_records.take(), Records_{});
    EXPECT_EQ(addressesOf(m_directory, "one"), Texts_{});
    EXPECT_EQ(addressesOf(m_directory, "two"), Texts_{"local:///a/two"});
    EXPECT_EQ(addressesOf(m_directory, "four"), Texts_{});
    EXPECT_EQ(addressesOf(m_directory, "five"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///a/four");
}

TEST_F(NameDirectory, aNameEndsAtABlankOrATab) {
    EXPECT_TRUE(
        open("local:///a/one one more\nlocal:///a/two two\tmore\nlocal:///a/three three\t\n"
             "local:///a/four\tfour\tmore and more\n"));

    EXPECT_EQ(m_records.take(), Records_{});
    for (const char* p_name : {"one", "two", "three", "four"})
        EXPECT_EQ(addressesOf(m_directory, p_name), Texts_{std::string("local:///a/") + p_name});
}

TEST_F(NameDirectory, aCarriageReturnBelongsToTheLastToken) {
    EXPECT_TRUE(open("local:///a/router router\r\nlocal:///a/default\r\n"));

    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(addressesOf(m_directory, "router\r"), Texts_{"local:///a/router"});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///a/default\r");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(NameDirectory, aCarriageReturnSeparatesNothing) {
    EXPECT_TRUE(open("\r\nlocal:///a/router \r\n"));

    EXPECT_EQ(m_records.take(), Records_{invalidLine(1, "\r")});
    EXPECT_EQ(addressesOf(m_directory, "\r"), Texts_{"local:///a/router"});
    EXPECT_EQ(firstDefaultOf(m_directory), "(null)");
}

TEST_F(NameDirectory, namesAreComparedByteByByte) {
    EXPECT_TRUE(
        open("local:///a/1 router\nlocal:///a/2 Router\nlocal:///a/3 route\nlocal:///a/4 routers\n"
             "local:///a/5 r\xC3\xB6ter\nlocal:///a/6 router\n"));

    EXPECT_EQ(addressesOf(m_directory, "router"), (Texts_{"local:///a/1", "local:///a/6"}));
    EXPECT_EQ(addressesOf(m_directory, "Router"), Texts_{"local:///a/2"});
    EXPECT_EQ(addressesOf(m_directory, "route"), Texts_{"local:///a/3"});
    EXPECT_EQ(addressesOf(m_directory, "routers"), Texts_{"local:///a/4"});
    EXPECT_EQ(addressesOf(m_directory, "r\xC3\xB6ter"), Texts_{"local:///a/5"});
    EXPECT_EQ(addressesOf(m_directory, ""), Texts_{});
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(NameDirectory, manyAddressesOfOneNameKeepTheirOrder) {
    std::string bytes;
    Texts_ expected;
    for (int number = 0; number < 50; ++number) {
        expected.push_back("local:///a/" + std::to_string(number));
        bytes += expected.back() + " router\nlocal:///other/" + std::to_string(number) + " other\n";
    }

    EXPECT_TRUE(open(bytes));

    EXPECT_EQ(addressesOf(m_directory, "router"), expected);
}

TEST_F(NameDirectory, theSameStringIsHandedOutEachTime) {
    EXPECT_TRUE(open("local:///a/router router\nlocal:///a/default\n"));
    std::list<SP_StdString_> first;
    std::list<SP_StdString_> second;
    SP_StdString_ sp_default;
    SP_StdString_ sp_sameDefault;

    EXPECT_TRUE(m_directory.getTransportAddresses(name("router"), first));
    EXPECT_TRUE(m_directory.getTransportAddresses(name("router"), second));
    EXPECT_TRUE(m_directory.getFirstDefaultTransportAddress(sp_default));
    EXPECT_TRUE(m_directory.getFirstDefaultTransportAddress(sp_sameDefault));

    EXPECT_EQ(first.front().get(), second.front().get());
    EXPECT_EQ(sp_default.get(), sp_sameDefault.get());
}

TEST_F(NameDirectory, addressesOutliveTheDirectory) {
    std::list<SP_StdString_> addresses;
    {
        NameDirectory_ directory;
        EXPECT_TRUE(directory.open(write("local:///a/router router\n").c_str()));
        EXPECT_TRUE(directory.getTransportAddresses(name("router"), addresses));
    }

    ASSERT_EQ(addresses.size(), 1U);
    EXPECT_EQ(text(addresses.front()), "local:///a/router");
}

TEST_F(NameDirectory, aNullNameIsRefused) {
    std::list<SP_StdString_> addresses{SP_StdString_(new std::string("before"))};

    EXPECT_FALSE(m_directory.getTransportAddresses(SP_Utf8String_(), addresses));

    EXPECT_EQ(
        m_records.take(),
        Records_{record(3, kAddresses, "NameDirectory_::getTransportAddresses(): null sp_componentName")});
    EXPECT_TRUE(addresses.empty());
}

TEST_F(NameDirectory, aLookUpEmptiesTheListFirst) {
    std::list<SP_StdString_> addresses{SP_StdString_(new std::string("before"))};

    EXPECT_TRUE(m_directory.getTransportAddresses(name("router"), addresses));

    EXPECT_TRUE(addresses.empty());
}

TEST_F(NameDirectory, closingForgetsNamesAndKeepsDefaults) {
    EXPECT_TRUE(open("local:///a/router router\nlocal:///a/default\n"));

    m_directory.close();

    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///a/default");
}

TEST_F(NameDirectory, aSecondOpenReplacesNamesAndKeepsTheFirstDefault) {
    EXPECT_TRUE(open("local:///a/router router\nlocal:///a/default\n"));

    EXPECT_TRUE(open("local:///b/logger logger\nlocal:///b/default\n"));

    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{});
    EXPECT_EQ(addressesOf(m_directory, "logger"), Texts_{"local:///b/logger"});
    EXPECT_EQ(firstDefaultOf(m_directory), "local:///a/default");
}

TEST_F(NameDirectory, aChangedFileIsNotNoticed) {
    EXPECT_TRUE(open("local:///a/router router\n"));

    write("local:///b/router router\n");

    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{"local:///a/router"});
}

TEST_F(NameDirectoryEntry, linesAreCountedFromOneIgnoredOnesIncluded) {
    start("# comment\n\nlocal:///a/router router\nbad\nlocal:///a/default\n");

    EXPECT_TRUE(next());
    EXPECT_EQ(text(m_sp_address), "local:///a/router");
    EXPECT_EQ(text(m_sp_name), "router");
    EXPECT_EQ(m_lineNumber, 3U);

    EXPECT_TRUE(next());
    EXPECT_EQ(text(m_sp_address), "local:///a/default");
    EXPECT_EQ(text(m_sp_name), "");
    EXPECT_EQ(m_lineNumber, 5U);
    EXPECT_EQ(m_records.take(), Records_{invalidLine(4, "bad")});
}

TEST_F(NameDirectoryEntry, theEndOfTheFileIsANullAddressAndThenABadFile) {
    start("local:///a/router router\n");
    EXPECT_TRUE(next());

    EXPECT_TRUE(next());
    EXPECT_EQ(text(m_sp_address), "(null)");
    EXPECT_EQ(text(m_sp_name), "");
    EXPECT_EQ(m_records.take(), Records_{});

    EXPECT_FALSE(next());
    EXPECT_EQ(m_records.take(), Records_{badFile()});
}

TEST_F(NameDirectoryEntry, aFileThatIsNotOpenIsBad) {
    m_file.setstate(std::ios::failbit);
    expectBadFile();
}

TEST_F(NameDirectoryEntry, aFileThatBrokeBeforeIsBad) {
    start("local:///a/router router\n");
    m_file.setstate(std::ios::badbit);
    expectBadFile();
}

TEST_F(NameDirectoryEntry, noFileIsBad) {
    EXPECT_FALSE(NameDirectory_::getEntry(nullptr, m_lineNumber, m_sp_address, m_sp_name));

    EXPECT_EQ(m_records.take(), Records_{badFile()});
}

TEST_F(NameDirectoryEntry, aNulByteIsAnOrdinaryCharacter) {
    start(std::string("local:///a\0b router\n", 20));

    EXPECT_TRUE(next());

    EXPECT_EQ(text(m_sp_address), std::string("local:///a\0b", 12));
    EXPECT_EQ(text(m_sp_name), "router");
}

TEST_F(NameDirectoryEntry, anyBytesAreRead) {
    std::string bytes;
    for (int round = 0; round < 64; ++round)
        for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>((byte * 7 + round * 31) & 0xFF);
    start(bytes);
    unsigned int entries = 0;

    while (next() && m_sp_address) ++entries;

    EXPECT_LE(entries, m_lineNumber);
    EXPECT_TRUE(m_file.eof());
}

TEST_F(NameDirectoryEntry, withoutMemoryForTheEmptyNameThereIsNoEntry) {
    start("local:///a/router router\n");
    inFreshThread([this] {
        AllocationFailure_ failure(1);
        EXPECT_FALSE(next());
    });

    EXPECT_EQ(m_records.take(),
              Records_{record(3, kReadName, "NameDirectory_::getEntry() can't create Utf8String_")});
    EXPECT_EQ(m_lineNumber, 0U);
}

TEST_F(NameDirectoryEntry, eachAllocationThatFailsGivesItsRecord) {
    const std::string longName(100, 'n');
    const std::string before(8191 - 20, '\n');  // so that the stream reads the line in two parts
    Texts_ seen;
    bool isDone = false;
    for (unsigned int number = 1; !isDone && number < 40; ++number) {
        m_file.close();
        m_file.clear();
        start(before + "local:///a/address/that/needs/memory/of/its/own " + longName + "\n");
        inFreshThread([&] {
            bool isRead = false;
            {
                AllocationFailure_ failure(number);
                isRead = next();
                isDone = !failure.hasStruck();
            }
            EXPECT_EQ(isRead, isDone) << number;
            m_sp_name.reset();
        });
        const Texts_ texts = m_records.takeTexts();
        EXPECT_EQ(texts.size(), isDone ? 0U : 1U);
        if (!texts.empty() && (seen.empty() || seen.back() != texts.front())) seen.push_back(texts.front());
    }

    EXPECT_TRUE(isDone);
    EXPECT_EQ(seen, (Texts_{"NameDirectory_::getEntry() can't create Utf8String_",
                            "NameDirectory_::getEntry(): bad file",
                            "NameDirectory_::getEntry() can't create std::string",
                            "NameDirectory_::getEntry() can't create Utf8String_"}));
}

TEST_F(NameDirectoryEntry, anAddressWithoutMemoryNamesItsFunction) {
    start("local:///ab router\n");
    Records_ ofAddress;
    inFreshThread([&] {
        m_sp_name = createUtf8String();
        m_sp_name.reset();  // leaves room for the name, so that the next allocations are the line's
        for (unsigned int number = 1; ofAddress.empty() && number < 10; ++number) {
            m_file.clear();
            m_file.seekg(0);
            {
                AllocationFailure_ failure(number);
                next();
            }
            m_sp_name.reset();
            const Records_ taken = m_records.take();
            if (!taken.empty() && taken.front().m_text.find("std::string") != std::string::npos)
                ofAddress = taken;
        }
    });

    EXPECT_EQ(ofAddress,
              Records_{record(3, kReadLine, "NameDirectory_::getEntry() can't create std::string")});
}

TEST_F(NameDirectory, whenMemoryRunsOutTheDirectoryCanBeOpenedAgain) {
    const std::string path =
        write("local:///a/address/that/needs/memory/of/its/own router\nlocal:///a/default\n");
    unsigned int number = 1;
    for (bool hasStruck = true; hasStruck && number < 100; ++number) {
        NameDirectory_ directory;
        inFreshThread([&] {
            AllocationFailure_ failure(number);
            try {
                directory.open(path.c_str());
            } catch (const std::bad_alloc&) {  // containers may throw: the caller is a barrier
            }
            hasStruck = failure.hasStruck();
        });
        m_records.take();

        EXPECT_TRUE(directory.open(path.c_str()));

        EXPECT_EQ(addressesOf(directory, "router"),
                  Texts_{"local:///a/address/that/needs/memory/of/its/own"});
        EXPECT_EQ(firstDefaultOf(directory), "local:///a/default");
        EXPECT_EQ(m_records.take(), Records_{});
    }
    EXPECT_GT(number, 5U);
    EXPECT_LT(number, 100U);
}

TEST_F(NameDirectory, aNameFillsTheRestOfItsLine) {
    const std::string longest(256 - 11, 'n');

    EXPECT_TRUE(open("local://ab " + longest + "\nlocal://cd " + longest + "n\n"));

    EXPECT_EQ(m_records.take(), Records_{tooLong(2, 257)});
    EXPECT_EQ(addressesOf(m_directory, longest), Texts_{"local://ab"});
}

TEST_F(NameDirectory, linesAreCountedBeyond65535) {
    EXPECT_TRUE(open(std::string(65535, '\n') + "x\ny\nlocal://ab router\n"));

    EXPECT_EQ(m_records.take(), (Records_{invalidLine(65536, "x"), invalidLine(65537, "y")}));
    EXPECT_EQ(addressesOf(m_directory, "router"), Texts_{"local://ab"});
}
