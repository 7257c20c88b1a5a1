// Tries what host/ asks of a host: see --help, and README.md in this folder.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <vector>

#include "clause.h"
#include "hook.h"
#include "process.h"

namespace host_conformance {

namespace {

const char* const help =
    "usage: %s [OPTION...] [CLAUSE...]\n"
    "\n"
    "Tries whether the host that this program is linked with fulfils its contract with libWindows.so.0, "
    "clause by\n"
    "clause, each in a process of its own. Without a CLAUSE all of them are tried.\n"
    "\n"
    "  --log FILE                   the file that the host writes events of type 11 and severity 1 to\n"
    "  --service NAME=ADDRESS:PORT  a service that the host knows\n"
    "  --limit SECONDS              how long a clause may take (default: 10)\n"
    "  --through COMMAND            starts each process through COMMAND, an emulator for example\n"
    "  --show                       shows what those processes print, and lets them dump core\n"
    "  --list                       lists the clauses and tries none\n"
    "\n"
    "Status 0 when nothing failed, 1 when something did, 2 after a wrong command line.\n";

struct Options {
    std::string service;
    std::string log;
    std::string through;
    unsigned limit = 10;
    bool help = false;
    bool show = false;
    bool list = false;
    std::vector<std::string> clauses;
};

std::vector<Clause> AllClauses() {
    std::vector<Clause> all;
    for (const Clause* table : {loggerClauses, timeClauses, registryClauses, errorClauses}) {
        for (; table->name; ++table)
            all.push_back(*table);
    }
    return all;
}

const Clause* Find(const std::vector<Clause>& clauses, const std::string& name) {
    for (const Clause& clause : clauses) {
        if (clause.name == name)
            return &clause;
    }
    return nullptr;
}

// In the process of a clause.
int Try(const Clause* clause) {
    if (!clause)
        return 2;
    if (HostConformanceHook)
        HostConformanceHook(getenv(kLogVariable));
    if (HasLog())
        RememberLogStart();
    try {
        clause->run();
    } catch (const std::exception& error) {
        Fail("expected that nothing is thrown, saw an exception: %s", error.what());
    } catch (...) {
        Fail("expected that nothing is thrown, saw an exception");
    }
    _exit(0); // what the host does after main is the affair of one clause alone
}

std::vector<char*> CommandLine(Options& options, std::string& self) {
    std::vector<char*> command;
    char* rest = nullptr;
    for (char* word = strtok_r(&options.through[0], " ", &rest); word; word = strtok_r(nullptr, " ", &rest))
        command.push_back(word);
    command.push_back(&self[0]);
    command.push_back(nullptr);
    return command;
}

// Becomes the process of a clause. The alarm outlives exec and ends a process that does not end by itself.
[[noreturn]] void Become(Options options, std::string self) {
    if (!options.show) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
    }
    signal(SIGALRM, SIG_DFL);
    alarm(options.limit);
    const std::vector<char*> command = CommandLine(options, self);
    execvp(command[0], command.data());
    _exit(127);
}

std::string ReadAll(int descriptor) {
    std::string text;
    char part[1024];
    for (ssize_t count = 0; (count = read(descriptor, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(count));
    for (char& c : text)
        c = c < ' ' || c > '~' ? '?' : c; // it may quote the host
    return text;
}

// What went wrong, "" if nothing did.
std::string Verdict(int status, const std::string& report, unsigned limit) {
    if (!report.empty())
        return report;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return "expected an end within " + std::to_string(limit) + " s, saw none";
    if (WIFSIGNALED(status))
        return "expected calls that return, saw the end of the process by signal " +
               std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    if (WEXITSTATUS(status) != 0)
        return "expected calls that return, saw the process leave with status " +
               std::to_string(WEXITSTATUS(status));
    return "";
}

std::string RunInProcess(const Clause& clause, const Options& options, const std::string& self) {
    int report[2];
    if (pipe(report) != 0)
        return strerror(errno);
    setenv(kClauseVariable, clause.name, 1);
    setenv(kReportVariable, std::to_string(report[1]).c_str(), 1);
    const pid_t process = fork();
    if (process == 0) {
        close(report[0]);
        Become(options, self);
    }
    close(report[1]);
    const std::string text = ReadAll(report[0]);
    close(report[0]);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return Verdict(status, text, options.limit);
}

// Why a clause cannot be tried, NULL if it can.
const char* Obstacle(const Clause& clause, const Options& options) {
    if (clause.need == NeedsLog && options.log.empty())
        return "needs the host's log (--log FILE, or a HostConformanceHook)";
    if (clause.need == NeedsService && options.service.empty())
        return "needs a service that the host knows (--service NAME=ADDRESS:PORT)";
    return nullptr;
}

int TryAll(const std::vector<Clause>& clauses, const Options& options, const std::string& self) {
    int ok = 0;
    int failed = 0;
    int notTried = 0;
    for (const Clause& clause : clauses) {
        if (const char* const obstacle = Obstacle(clause, options)) {
            printf("%s: not tried: %s\n", clause.name, obstacle);
            ++notTried;
            continue;
        }
        const std::string problem = RunInProcess(clause, options, self);
        if (problem.empty()) {
            printf("%s: ok\n", clause.name);
            ++ok;
        } else {
            printf("%s: FAILED: %s\n    (%s)\n", clause.name, problem.c_str(), clause.text);
            ++failed;
        }
        fflush(stdout);
    }
    printf("%d ok, %d failed, %d not tried\n", ok, failed, notTried);
    return failed ? 1 : 0;
}

// Where the kernel says that this program is, as its first argument may be relative to PATH.
std::string Self(const char* otherwise) {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : otherwise;
}

// A log of the program's own, for a host with a hook.
class TemporaryLog {
public:
    TemporaryLog()
        : m_path((getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + std::string("/host_log.XXXXXX")) {
        const int descriptor = mkstemp(&m_path[0]);
        if (descriptor < 0)
            m_path.clear();
        else
            close(descriptor);
    }
    ~TemporaryLog() {
        if (!m_path.empty())
            unlink(m_path.c_str());
    }
    TemporaryLog(const TemporaryLog&) = delete;
    TemporaryLog& operator=(const TemporaryLog&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

bool IsService(const std::string& text) {
    const size_t equals = text.find('=');
    const size_t colon = text.rfind(':');
    return equals > 0 && equals != std::string::npos && colon != std::string::npos && colon > equals + 1 &&
           atoi(text.c_str() + colon + 1) > 0;
}

// False when it cannot be understood.
bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help") {
            options.help = true;
        } else if (word == "--show") {
            options.show = true;
        } else if (word == "--list") {
            options.list = true;
        } else if (word.compare(0, 2, "--") != 0) {
            options.clauses.push_back(word);
        } else if (++i == argc) {
            return false;
        } else if (word == "--log") {
            options.log = argv[i];
        } else if (word == "--service" && IsService(argv[i])) {
            options.service = argv[i];
        } else if (word == "--through") {
            options.through = argv[i];
        } else if (word == "--limit" && atoi(argv[i]) > 0) {
            options.limit = static_cast<unsigned>(atoi(argv[i]));
        } else {
            return false;
        }
    }
    return true;
}

int Refuse(const char* program) {
    fprintf(stderr, "%s: wrong command line (see --help)\n", program);
    return 2;
}

int Main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options))
        return Refuse(argv[0]);
    if (options.help) {
        printf(help, argv[0]);
        return 0;
    }
    const std::vector<Clause> all = AllClauses();
    if (options.list) {
        for (const Clause& clause : all)
            printf("%s: %s\n", clause.name, clause.text);
        return 0;
    }
    std::vector<Clause> chosen;
    for (const std::string& name : options.clauses) {
        const Clause* const clause = Find(all, name);
        if (!clause)
            return Refuse(argv[0]);
        chosen.push_back(*clause);
    }
    const TemporaryLog temporary;
    if (options.log.empty() && HostConformanceHook)
        options.log = temporary.Path();
    if (!options.log.empty())
        setenv(kLogVariable, options.log.c_str(), 1);
    if (!options.service.empty())
        setenv(kServiceVariable, options.service.c_str(), 1);
    return TryAll(chosen.empty() ? all : chosen, options, Self(argv[0]));
}

} // namespace

} // namespace host_conformance

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    if (const char* const clause = getenv(host_conformance::kClauseVariable)) {
        const std::vector<host_conformance::Clause> all = host_conformance::AllClauses();
        return host_conformance::Try(host_conformance::Find(all, clause));
    }
    return host_conformance::Main(argc, argv);
}
