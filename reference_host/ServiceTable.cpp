#include <reference_host/reference_host.h>

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <charconv>
#include <functional>
#include <map>
#include <mutex>
#include <new>

namespace {

using Services = std::map<std::string, CServiceAddress, std::less<>>;

struct Table {
    std::mutex mutex; // guards services
    Services services;
};

// Never destroyed: threads may look names up until the process ends.
Table& TheTable() {
    alignas(Table) static char storage[sizeof(Table)];
    static Table& table = *new (storage) Table;
    return table;
}

bool IsAddress(const char* text) {
    in_addr address = {};
    return text && inet_pton(AF_INET, text, &address) == 1;
}

bool IsPort(int port) { return port >= 1 && port <= 65535; }

// 0, which is no port, unless the whole text is a number.
int ParsePort(const char* text) {
    int port = 0;
    const char* const end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, port);
    return error == std::errc() && stop == end ? port : 0;
}

CServiceAddress MakeAddress(const char* address, int port) {
    CServiceAddress result;
    snprintf(result.m_szIPAddress, sizeof result.m_szIPAddress, "%s", address);
    result.m_nPortNumber = port;
    return result;
}

// Adds what a line says to services. Returns what is wrong with the line, "" if nothing is.
std::string AddLine(char* line, size_t length, Services& services) {
    if (strlen(line) != length)
        return "there is a NUL in it";
    line[strcspn(line, "#")] = '\0';
    const char* fields[3] = {};
    size_t count = 0;
    char* rest = nullptr;
    const char* const blanks = " \t\r\n";
    for (const char* field = strtok_r(line, blanks, &rest); field; field = strtok_r(nullptr, blanks, &rest)) {
        if (count < 3)
            fields[count] = field;
        ++count;
    }
    if (count == 0)
        return "";
    if (count != 3)
        return "expected a name, an address and a port, found " + std::to_string(count) +
               (count == 1 ? " field" : " fields");
    const auto [name, address, port] = fields;
    if (!IsAddress(address))
        return "'" + std::string(address) + "' is not an IPv4 address in dotted-decimal";
    if (!IsPort(ParsePort(port)))
        return "'" + std::string(port) + "' is not a port from 1 to 65535";
    if (!services.emplace(name, MakeAddress(address, ParsePort(port))).second)
        return "the name '" + std::string(name) + "' is used by an earlier line";
    return "";
}

class TextFile {
public:
    explicit TextFile(const char* path)
        : m_file(fopen(path, "re")), m_error(m_file ? 0 : errno), m_line(nullptr), m_capacity(0),
          m_length(0) {}
    ~TextFile() {
        if (m_file)
            fclose(m_file);
        free(m_line);
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    // The next line, which may be written to. NULL at the end, and when the file cannot be opened or read.
    char* ReadLine() {
        if (!m_file)
            return nullptr;
        m_length = getline(&m_line, &m_capacity, m_file);
        if (m_length >= 0)
            return m_line;
        if (!feof(m_file))
            m_error = errno;
        return nullptr;
    }

    // How long the line is that was read last.
    size_t LineLength() const { return static_cast<size_t>(m_length); }

    // Why reading ended early, 0 if it did not.
    int Error() const { return m_error; }

private:
    FILE* m_file;
    int m_error;
    char* m_line;
    size_t m_capacity;
    ssize_t m_length;
};

} // namespace

namespace reference_host {

bool AddService(const char* name, const char* address, int port) {
    if (!name || !*name || !IsAddress(address) || !IsPort(port))
        return false;
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.services[name] = MakeAddress(address, port);
    return true;
}

bool RemoveService(const char* name) {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    const auto service = name ? table.services.find(name) : table.services.end();
    if (service == table.services.end())
        return false;
    table.services.erase(service);
    return true;
}

bool LoadServices(const char* path) {
    std::vector<std::string> problems;
    const bool loaded = LoadServices(path, problems);
    for (const std::string& problem : problems)
        fprintf(stderr, "%s\n", problem.c_str());
    return loaded;
}

bool LoadServices(const char* path, std::vector<std::string>& problems) {
    const auto report = [&](const std::string& line, const std::string& reason) {
        problems.push_back(path + line + ": " + reason);
    };
    TextFile file(path);
    Services loaded;
    int number = 0;
    while (char* line = file.ReadLine()) {
        ++number;
        const std::string reason = AddLine(line, file.LineLength(), loaded);
        if (!reason.empty())
            report(":" + std::to_string(number), reason);
    }
    if (file.Error() != 0) {
        report("", strerror(file.Error()));
        return false;
    }
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    loaded.merge(table.services); // keeps the loaded one where both have a name
    table.services.swap(loaded);
    return true;
}

} // namespace reference_host

CServiceAddress::CServiceAddress() : m_szIPAddress(), m_nPortNumber(0) {}

CServiceAddress::~CServiceAddress() {}

const char* CServiceAddress::getIPAddress() const { return m_szIPAddress; }

int CServiceAddress::getPortNumber() const { return m_nPortNumber; }

int RegSvcQueryForServiceAddress(const char* serviceName, CServiceAddress& address, int) {
    Table& table = TheTable();
    const std::lock_guard<std::mutex> lock(table.mutex);
    const auto service = serviceName ? table.services.find(serviceName) : table.services.end();
    if (service == table.services.end())
        return 0;
    address = service->second;
    return 1;
}
