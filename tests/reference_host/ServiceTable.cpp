#include <errno.h>
#include <gtest/gtest.h>
#include <reference_host/reference_host.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Problems = std::vector<std::string>;

// A file with a text, removed at the end.
class File {
public:
    explicit File(const std::string& text) : m_path("/tmp/services.XXXXXX") {
        close(mkstemp(&m_path[0]));
        Write(text);
    }
    ~File() { unlink(Path()); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void Write(const std::string& text) const { std::ofstream(m_path) << text; }
    const char* Path() const { return m_path.c_str(); }

    // "PATH:LINE: reason"
    std::string Problem(int line, const std::string& reason) const {
        return m_path + ":" + std::to_string(line) + ": " + reason;
    }

private:
    std::string m_path;
};

// "ADDRESS:PORT" of a service, "" if there is none.
std::string Lookup(const char* name) {
    CServiceAddress address;
    if (RegSvcQueryForServiceAddress(name, address, 10) == 0)
        return "";
    return std::string(address.getIPAddress()) + ":" + std::to_string(address.getPortNumber());
}

// Loads a file that holds this text; the names it brings are removed by the test, or unique to it.
Problems ProblemsOf(const File& file) {
    Problems problems;
    EXPECT_TRUE(reference_host::LoadServices(file.Path(), problems));
    return problems;
}

} // namespace

TEST(ServiceTable, Address_begins_empty) {
    const CServiceAddress address;
    EXPECT_STREQ(address.getIPAddress(), "");
    EXPECT_EQ(address.getPortNumber(), 0);
}

TEST(ServiceTable, Lookup_of_an_unknown_name_fails_and_leaves_the_address) {
    CServiceAddress address;
    address.m_nPortNumber = 7;
    EXPECT_EQ(RegSvcQueryForServiceAddress("unknown", address, 10), 0);
    EXPECT_EQ(RegSvcQueryForServiceAddress("", address, 10), 0);
    EXPECT_EQ(RegSvcQueryForServiceAddress(nullptr, address, 10), 0);
    EXPECT_STREQ(address.getIPAddress(), "");
    EXPECT_EQ(address.getPortNumber(), 7);
}

TEST(ServiceTable, Lookup_finds_what_was_added) {
    ASSERT_TRUE(reference_host::AddService("added", "255.255.255.255", 65535));
    ASSERT_TRUE(reference_host::AddService("other", "0.0.0.0", 1));
    EXPECT_EQ(Lookup("added"), "255.255.255.255:65535");
    EXPECT_EQ(Lookup("other"), "0.0.0.0:1");
}

TEST(ServiceTable, Third_argument_of_a_lookup_means_nothing) {
    ASSERT_TRUE(reference_host::AddService("third", "127.0.0.1", 80));
    CServiceAddress address;
    EXPECT_NE(RegSvcQueryForServiceAddress("third", address, 0), 0);
    EXPECT_NE(RegSvcQueryForServiceAddress("third", address, -1), 0);
}

TEST(ServiceTable, Adding_a_name_again_replaces_its_address) {
    ASSERT_TRUE(reference_host::AddService("again", "127.0.0.1", 80));
    ASSERT_TRUE(reference_host::AddService("again", "10.0.0.255", 81));
    EXPECT_EQ(Lookup("again"), "10.0.0.255:81");
}

TEST(ServiceTable, Line_with_a_NUL_is_left_out_and_reported) {
    const File file(std::string("before 127.0.0.1 80\ncut 127.0.0.1 80\0 81\nbehind 127.0.0.1 82\n", 61));
    Problems problems;
    EXPECT_TRUE(reference_host::LoadServices(file.Path(), problems));
    EXPECT_EQ(problems, Problems{file.Problem(2, "there is a NUL in it")});
    EXPECT_EQ(Lookup("before"), "127.0.0.1:80");
    EXPECT_EQ(Lookup("cut"), "");
    EXPECT_EQ(Lookup("behind"), "127.0.0.1:82");
}

TEST(ServiceTable, Bad_service_is_refused_and_changes_nothing) {
    ASSERT_TRUE(reference_host::AddService("kept", "127.0.0.1", 80));
    for (const char* address : {"", "localhost", "127.0.0", "127.0.0.256", "127.0.0.1 ", "127.1", "::1"})
        EXPECT_FALSE(reference_host::AddService("kept", address, 80)) << address;
    EXPECT_FALSE(reference_host::AddService("kept", nullptr, 80));
    for (const int port : {0, -1, 65536})
        EXPECT_FALSE(reference_host::AddService("kept", "127.0.0.1", port)) << port;
    EXPECT_EQ(Lookup("kept"), "127.0.0.1:80");
    EXPECT_FALSE(reference_host::AddService("", "127.0.0.1", 80));
    EXPECT_FALSE(reference_host::AddService(nullptr, "127.0.0.1", 80));
}

TEST(ServiceTable, Removed_service_is_not_found) {
    ASSERT_TRUE(reference_host::AddService("gone", "127.0.0.1", 80));
    EXPECT_TRUE(reference_host::RemoveService("gone"));
    EXPECT_EQ(Lookup("gone"), "");
    EXPECT_FALSE(reference_host::RemoveService("gone"));
    EXPECT_FALSE(reference_host::RemoveService(nullptr));
}

TEST(ServiceTable, File_may_hold_comments_empty_lines_and_any_blanks) {
    const File file("# services\n"
                    "\n"
                    "  \t \n"
                    "file.a 127.0.0.1 80\n"
                    "\tfile.b \t 10.1.2.3\t 65535  # the other one\n"
                    "   # more\n"
                    "file.c 1.2.3.4 1\r\n"
                    "file.d 1.2.3.4 2#\n"
                    "file.e 1.2.3.4 3");
    EXPECT_EQ(ProblemsOf(file), Problems{});
    EXPECT_EQ(Lookup("file.a"), "127.0.0.1:80");
    EXPECT_EQ(Lookup("file.b"), "10.1.2.3:65535");
    EXPECT_EQ(Lookup("file.c"), "1.2.3.4:1");
    EXPECT_EQ(Lookup("file.d"), "1.2.3.4:2");
    EXPECT_EQ(Lookup("file.e"), "1.2.3.4:3");
}

TEST(ServiceTable, Line_with_a_wrong_number_of_fields_is_reported_and_left_out) {
    const File file("one\n"
                    "two 127.0.0.1\n"
                    "four 127.0.0.1 80 more\n"
                    "five 127.0.0.1 80 more more\n"
                    "comment # 127.0.0.1 80\n"
                    "fields.good 127.0.0.1 80\n");
    const std::string expected = "expected a name, an address and a port, found ";
    EXPECT_EQ(ProblemsOf(file),
              (Problems{file.Problem(1, expected + "1 field"), file.Problem(2, expected + "2 fields"),
                        file.Problem(3, expected + "4 fields"), file.Problem(4, expected + "5 fields"),
                        file.Problem(5, expected + "1 field")}));
    EXPECT_EQ(Lookup("four"), "");
    EXPECT_EQ(Lookup("fields.good"), "127.0.0.1:80");
}

TEST(ServiceTable, Line_with_a_bad_address_is_reported_and_left_out) {
    const File file("address.a localhost 80\n"
                    "address.good 127.0.0.1 80\n"
                    "\n"
                    "address.b 127.0.0.256 80\n"
                    "address.c 127.1 80\n");
    const std::string reason = "is not an IPv4 address in dotted-decimal";
    EXPECT_EQ(ProblemsOf(file),
              (Problems{file.Problem(1, "'localhost' " + reason), file.Problem(4, "'127.0.0.256' " + reason),
                        file.Problem(5, "'127.1' " + reason)}));
    EXPECT_EQ(Lookup("address.a"), "");
    EXPECT_EQ(Lookup("address.good"), "127.0.0.1:80");
}

TEST(ServiceTable, Line_with_a_bad_port_is_reported_and_left_out) {
    std::string text;
    Problems expected;
    const Problems ports = {"0", "65536", "-1", "+1", "80x", "x", "0x50", "8.0", "99999999999999999999"};
    for (const std::string& port : ports)
        text += "port 127.0.0.1 " + port + "\n";
    const File file(text);
    for (const std::string& port : ports)
        expected.push_back(file.Problem(static_cast<int>(expected.size()) + 1,
                                        "'" + port + "' is not a port from 1 to 65535"));
    EXPECT_EQ(ProblemsOf(file), expected);
    EXPECT_EQ(Lookup("port"), "");
}

TEST(ServiceTable, Name_of_an_earlier_line_is_reported_and_the_earlier_line_holds) {
    const File file("twice bad 80\n"
                    "twice 127.0.0.1 80\n"
                    "twice 127.0.0.1 81\n");
    const Problems problems = ProblemsOf(file);
    ASSERT_EQ(problems.size(), 2U);
    EXPECT_EQ(problems[1], file.Problem(3, "the name 'twice' is used by an earlier line"));
    EXPECT_EQ(Lookup("twice"), "127.0.0.1:80");
}

TEST(ServiceTable, File_replaces_what_the_table_has_and_keeps_the_rest) {
    ASSERT_TRUE(reference_host::AddService("replaced", "127.0.0.1", 80));
    ASSERT_TRUE(reference_host::AddService("rest", "127.0.0.1", 81));
    const File file("replaced 10.0.0.1 90\n");
    EXPECT_EQ(ProblemsOf(file), Problems{});
    EXPECT_EQ(Lookup("replaced"), "10.0.0.1:90");
    EXPECT_EQ(Lookup("rest"), "127.0.0.1:81");
    file.Write("replaced 10.0.0.2 91\n");
    EXPECT_EQ(ProblemsOf(file), Problems{});
    EXPECT_EQ(Lookup("replaced"), "10.0.0.2:91");
}

TEST(ServiceTable, Empty_file_is_no_problem) { EXPECT_EQ(ProblemsOf(File("")), Problems{}); }

TEST(ServiceTable, Line_may_be_longer_than_any_buffer) {
    const std::string name(100000, 'n');
    EXPECT_EQ(ProblemsOf(File(name + " 127.0.0.1 80\n")), Problems{});
    EXPECT_EQ(Lookup(name.c_str()), "127.0.0.1:80");
}

TEST(ServiceTable, Missing_file_is_reported_by_the_systems_message) {
    Problems problems = {"before"};
    EXPECT_FALSE(reference_host::LoadServices("/nonexistent/services", problems));
    EXPECT_EQ(problems, (Problems{"before", "/nonexistent/services: No such file or directory"}));
}

TEST(ServiceTable, Unreadable_file_is_reported_by_the_systems_message) {
    Problems problems;
    EXPECT_FALSE(reference_host::LoadServices("/tmp", problems));
    EXPECT_EQ(problems, Problems{"/tmp: Is a directory"});
}

TEST(ServiceTable, Problems_go_to_standard_error_by_default) {
    const File file("bad\n"
                    "default.good 127.0.0.1 80\n"
                    "bad too\n");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(reference_host::LoadServices(file.Path()));
    EXPECT_FALSE(reference_host::LoadServices("/nonexistent/services"));
    const std::string expected = "expected a name, an address and a port, found ";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              file.Problem(1, expected + "1 field\n") + file.Problem(3, expected + "2 fields\n") +
                  "/nonexistent/services: No such file or directory\n");
    EXPECT_EQ(Lookup("default.good"), "127.0.0.1:80");
}

TEST(ServiceTable, Lookups_run_while_the_table_changes) {
    const File file("steady 127.0.0.1 80\n");
    ASSERT_EQ(ProblemsOf(file), Problems{});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int j = 0; j < 500; ++j) {
                EXPECT_EQ(Lookup("steady"), "127.0.0.1:80");
                const std::string found = Lookup("changing");
                EXPECT_TRUE(found.empty() || found == "10.0.0.1:1" || found == "10.0.0.2:2") << found;
            }
        });
    for (int j = 0; j < 200; ++j) {
        EXPECT_TRUE(reference_host::AddService("changing", "10.0.0.1", 1));
        EXPECT_TRUE(reference_host::AddService("changing", "10.0.0.2", 2));
        if (j % 20 == 0) {
            EXPECT_EQ(ProblemsOf(file), Problems{});
        }
        EXPECT_TRUE(reference_host::RemoveService("changing"));
    }
    for (std::thread& thread : threads)
        thread.join();
}
