// The reference host's service table: the input is the contents of its file, read a second time here, as the
// header describes the form.
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <vector>

#include "Input.h"

namespace {

// A file in memory that is written anew for each input.
class File {
public:
    File() : m_fd(memfd_create("services", MFD_CLOEXEC)), m_path("/proc/self/fd/" + std::to_string(m_fd)) {
        fuzz::Require(m_fd >= 0, "there is a file in memory");
    }
    ~File() { close(m_fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void Hold(const std::string& text) {
        fuzz::Require(ftruncate(m_fd, 0) == 0 &&
                          pwrite(m_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                      "the file can be written");
    }

    const std::string& Path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;
};

struct Service {
    std::string address;
    int port;
};

struct Contents {
    std::map<std::string, Service> services;
    std::vector<int> refused; // numbers of lines
};

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Four numbers from 0 to 255 without leading zeros.
bool IsAddress(const std::string& text) {
    std::istringstream parts(text + ".");
    std::string part;
    int count = 0;
    for (; std::getline(parts, part, '.'); ++count)
        if (!IsNumber(part) || part.size() > 3 || (part.size() > 1 && part[0] == '0') ||
            std::stoi(part) > 255)
            return false;
    return count == 4;
}

// 0 if it is none.
int PortOf(const std::string& text) {
    if (!IsNumber(text))
        return 0;
    const size_t first = std::min(text.find_first_not_of('0'), text.size());
    if (text.size() - first > 5)
        return 0;
    const int port = static_cast<int>(strtol(text.c_str(), nullptr, 10));
    return port <= 65535 ? port : 0;
}

std::vector<std::string> FieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    const char* const blanks = " \t\r";
    for (size_t at = line.find_first_not_of(blanks); at != std::string::npos;) {
        const size_t end = std::min(line.find_first_of(blanks, at), line.size());
        fields.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(blanks, end);
    }
    return fields;
}

Contents Read(const std::string& text) {
    Contents contents;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        if (line.find('\0') != std::string::npos) {
            contents.refused.push_back(number);
            continue;
        }
        line.resize(std::min(line.find('#'), line.size()));
        const std::vector<std::string> fields = FieldsOf(line);
        if (fields.empty())
            continue;
        if (fields.size() != 3 || !IsAddress(fields[1]) || PortOf(fields[2]) == 0 ||
            !contents.services.insert({fields[0], {fields[1], PortOf(fields[2])}}).second)
            contents.refused.push_back(number);
    }
    return contents;
}

void CompareReports(const std::vector<std::string>& problems, const Contents& expected,
                    const std::string& path) {
    fuzz::Require(problems.size() == expected.refused.size(),
                  "each line that is left out is reported, and no other");
    for (size_t i = 0; i < problems.size(); ++i) {
        const std::string prefix = path + ":" + std::to_string(expected.refused[i]) + ": ";
        fuzz::Require(problems[i].compare(0, prefix.size(), prefix) == 0 &&
                          problems[i].size() > prefix.size(),
                      "a report begins with path and line and gives a reason");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static File file;
    const std::string text(data, data + size);
    file.Hold(text);
    const Contents expected = Read(text);
    std::vector<std::string> problems;
    fuzz::Require(reference_host::LoadServices(file.Path().c_str(), problems),
                  "a file that can be read is loaded");
    CompareReports(problems, expected, file.Path());
    for (const auto& [name, service] : expected.services) {
        CServiceAddress address;
        fuzz::Require(RegSvcQueryForServiceAddress(name.c_str(), address, 10) != 0,
                      "a service of the file is found");
        fuzz::Require(address.getIPAddress() == service.address && address.getPortNumber() == service.port,
                      "a service has the address and port of its line");
        fuzz::Require(reference_host::RemoveService(name.c_str()), "a service of the file can be removed");
    }
    return 0;
}
