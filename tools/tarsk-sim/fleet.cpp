// tarsk-sim fleet: one package rehearsed on many devices. Each device is copied to a work folder,
// the package is put into the copy's program folder, and a whole boot runs on the copy exactly as
// `tarsk-sim run` runs it, in deterministic device time.
//
// The device program keeps process-wide state (globals, caches computed once), so every boot runs in
// a process of its own: the parent reads the package and the device list, then forks one child per
// device, as many at a time as there are cores, each kept on a core of its own. A forked child starts
// from the parent's untouched state without loading or linking anything again. The child copies its
// device, boots it, sends its summary (the run's JSON object, one line) through a pipe, removes its
// copy and ends; the parent keeps the rows in the order the devices were given and prints them once
// all have ended.
//
// Besides the program itself, a boot costs mostly the fork and the host's file system: the copies go
// to /dev/shm (see workBase), are made and removed with the *at calls, and the journal stays in memory.
#include "simtool.h"

#include "windows.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sched.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarsk_sim {

namespace {

using tarsk_tools::Bytes;

struct FleetDevice {
    std::string given;   // as given (a device inside a folder of devices: that folder / its name)
    fs::path folder;
};

// The devices of the command line: each argument is a device folder (it holds device.toml) or a
// folder of device folders (it does not, and some of its subfolders do; those are taken, by name).
std::vector<FleetDevice> expandDevices(const std::vector<std::string> &args) {
    std::vector<FleetDevice> out;
    for (const std::string &arg : args) {
        const fs::path folder = arg;
        std::error_code ec;
        if (!fs::is_directory(folder, ec)) fail(2, "no device folder " + arg);
        if (fs::is_regular_file(folder / "device.toml", ec)) {
            out.push_back({arg, folder});
            continue;
        }
        std::vector<std::string> names;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
            if (it->is_directory(ec) && fs::is_regular_file(it->path() / "device.toml", ec))
                names.push_back(it->path().filename().string());
        if (names.empty())
            fail(2, "not a device folder (no device.toml) nor a folder of device folders: " + arg);
        std::sort(names.begin(), names.end());
        for (const std::string &name : names) out.push_back({(folder / name).string(), folder / name});
    }
    return out;
}

// The package as the devices get it: the sealed file as it is, or a descriptor sealed here.
Bytes readPackage(const FleetOptions &o) {
    std::string why;
    auto data = tarsk_tools::readFile(o.package, why);
    if (!data) fail(2, "cannot read the package " + o.package + ": " + why);
    if (!tarsk_tools::fitsDevice(*data)) fail(2, o.package + " is too large for the device (4 GiB or more)");
    if (o.seal) tarsk_tools::seal(*data, tarsk_tools::buildKey());
    return *data;
}

// Folders are copied and removed with the *at calls and the entry types that readdir gives: a boot
// copies and removes a whole device, and std::filesystem asks for each entry's status several times
// over (most of a boot's system calls).
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

[[noreturn]] void systemFailure(const std::string &what, const fs::path &path) {
    throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

// The names in the folder open as dirFd (read from its start, once), with their types (DT_UNKNOWN
// where the file system gives none).
std::vector<std::pair<std::string, unsigned char>> entries(int dirFd, const fs::path &path) {
    std::vector<std::pair<std::string, unsigned char>> out;
    alignas(dirent64) char buf[2048];   // a device's folders hold a few entries: one read, few stack pages
    for (;;) {
        const ssize_t n = ::getdents64(dirFd, buf, sizeof buf);
        if (n < 0) systemFailure("cannot read the folder", path);
        if (n == 0) return out;
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const dirent64 *>(buf + at);
            at += e->d_reclen;
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) out.emplace_back(e->d_name, e->d_type);
        }
    }
}

void copyFileAt(int from, int to, const std::string &name, const fs::path &path) {
    Fd in(::openat(from, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st;
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0) systemFailure("cannot read", path / name);
    Fd out(::openat(to, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777));
    if (out.fd < 0) systemFailure("cannot write the copy of", path / name);
    for (off_t left = st.st_size; left > 0;) {
        ssize_t n = ::sendfile(out.fd, in.fd, nullptr, size_t(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) systemFailure("cannot copy", path / name);
        left -= n;
    }
}

// Copies the entries of the folder from into the folder to, but those skip names.
void copyEntries(int from, int to, const fs::path &path, const std::vector<std::string> &skip = {}) {
    for (const auto &[name, type] : entries(from, path)) {
        if (std::find(skip.begin(), skip.end(), name) != skip.end()) continue;
        struct stat st;
        unsigned char t = type;
        if (t == DT_UNKNOWN) {
            if (::fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) systemFailure("cannot read", path / name);
            t = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (t == DT_REG) {
            copyFileAt(from, to, name, path);
        } else if (t == DT_DIR) {
            Fd sub(::openat(from, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
            if (sub.fd < 0 || ::fstat(sub.fd, &st) != 0) systemFailure("cannot read", path / name);
            if (::mkdirat(to, name.c_str(), (st.st_mode & 07777) | S_IRWXU) != 0)
                systemFailure("cannot make the copy of", path / name);
            Fd copy(::openat(to, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (copy.fd < 0) systemFailure("cannot open the copy of", path / name);
            copyEntries(sub.fd, copy.fd, path / name);
        } else if (t == DT_LNK) {
            char target[4096];
            ssize_t n = ::readlinkat(from, name.c_str(), target, sizeof target - 1);
            if (n < 0) systemFailure("cannot read", path / name);
            target[n] = '\0';
            if (::symlinkat(target, to, name.c_str()) != 0) systemFailure("cannot make the copy of", path / name);
        }
        // Sockets, pipes and devices are no part of a device folder.
    }
}

// A copy of the device for one boot. What earlier runs left in run/ for themselves (the journal, the
// panel, the named mutexes' lock files) is not copied: each run makes it anew. The rest of run/ (the
// parked flash disk) is part of the device's state and is copied.
void copyDevice(const fs::path &from, const fs::path &to) {
    Fd src(::open(from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (src.fd < 0) systemFailure("cannot read", from);
    if (::mkdir(to.c_str(), 0755) != 0) systemFailure("cannot make", to);
    Fd dst(::open(to.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dst.fd < 0) systemFailure("cannot open", to);
    copyEntries(src.fd, dst.fd, from, {"run"});
    Fd run(::openat(src.fd, "run", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (run.fd < 0) return;
    if (::mkdirat(dst.fd, "run", 0755) != 0) systemFailure("cannot make", to / "run");
    Fd runCopy(::openat(dst.fd, "run", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (runCopy.fd < 0) systemFailure("cannot open", to / "run");
    copyEntries(run.fd, runCopy.fd, from / "run", {"journal.jsonl", "panel.txt", "mutex"});
}

// Removes the entries of the folder open as dirFd and their contents; quietly leaves what it cannot.
void removeEntries(int dirFd, const fs::path &path) {
    std::vector<std::pair<std::string, unsigned char>> names;
    try {
        names = entries(dirFd, path);
    } catch (const fs::filesystem_error &) {
        return;
    }
    for (const auto &[name, type] : names) {
        if (type != DT_DIR && ::unlinkat(dirFd, name.c_str(), 0) == 0) continue;
        Fd sub(::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
        if (sub.fd < 0) continue;
        removeEntries(sub.fd, path / name);
        ::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR);
    }
}

void removeFolder(const fs::path &folder) {
    Fd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (dir.fd >= 0) removeEntries(dir.fd, folder);
    ::rmdir(folder.c_str());
}

void writeAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += size_t(n);
    }
}

void writeFile(const fs::path &file, const Bytes &data) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail(2, "cannot write " + file.string() + ": " + tarsk_tools::systemError(errno));
    writeAll(fd, std::string(data.begin(), data.end()));
    ::close(fd);
}

// An error text about the copy, told about the device as given.
std::string aboutDevice(std::string text, const fs::path &copy, const std::string &given) {
    const std::string from = copy.string();
    for (size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, from.size(), given);
    return text;
}

// The child: boots one device and sends its summary (or its error) as one JSON line on out.
[[noreturn]] void bootChild(const FleetDevice &d, const fs::path &copy, const Bytes &package, double timeoutSeconds,
                            int out) {
    auto send = [out](const ordered_json &j) {
        writeAll(out, j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    };
    try {
        copyDevice(d.folder, copy);
        std::unique_ptr<sim::Device> dev;
        try {
            dev = makeDevice(copy, {});
        } catch (const Failure &) {
            checkProfileSyntax(copy / "device.toml");   // a syntax error, with its line
            throw;
        }
        dev->clock().setScale(0);
        dev->windows().setEcho(false);
        // The journal stays in memory, where the summary reads it: the copy is removed at the end.
        dev->journal().close();
        const fs::path target = packagePath(copy, dev->programPath());
        fs::create_directories(target.parent_path());
        writeFile(target, package);
        // The device lives until the process ends.
        bootDevice(*dev.release(), timeoutSeconds, [send, copy](RunSummary &s) {
            send(runJson(s, "", ""));
            removeFolder(copy);
            return 0;
        });
    } catch (const Failure &f) {
        send({{"error", aboutDevice(f.text, copy, d.given)}});
    } catch (const std::exception &e) {
        send({{"error", aboutDevice(e.what(), copy, d.given)}});
    }
    removeFolder(copy);
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(2);
}

// A boot under way.
struct Child {
    pid_t pid;
    int fd;
    size_t index;
    unsigned slot;   // which of the pool's places it holds
    std::string out;
};

// The cores this process may run on.
std::vector<int> allowedCores() {
    std::vector<int> cores;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof set, &set) == 0)
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &set)) cores.push_back(c);
    return cores;
}

// Keeps the calling process on one core. A boot's threads hand the device to each other many times
// (device time moves on only when all of them wait): on one core a hand-over is a switch on the spot,
// across cores it waits for the other core's scheduler, which on a busy machine costs more than the
// boot's own work.
void pinTo(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    ::sched_setaffinity(0, sizeof set, &set);
}

// The row of a device: the run's decision fields, or what is known of a boot that gave none.
ordered_json rowOf(const FleetDevice &d, const std::string &out, int status) {
    ordered_json row = ordered_json::object();
    row["device"] = d.given;
    ordered_json run;
    try {
        run = ordered_json::parse(out.substr(0, out.find('\n')));
    } catch (const nlohmann::json::exception &) {
        run = ordered_json::object();
    }
    if (run.contains("end")) {
        for (const char *key : {"bootloader", "kernel", "region", "format", "request", "end", "started"})
            row[key] = run[key];
        return row;
    }
    for (const char *key : {"bootloader", "kernel", "region", "format", "request", "started"}) row[key] = nullptr;
    if (run.contains("error")) {
        row["end"] = "error";
        const std::string error = run["error"].is_string() ? run["error"].get<std::string>() : "failed";
        row["error"] = error.find(d.given) == std::string::npos ? d.given + ": " + error : error;
    } else {
        // Ended without a summary: killed, or a fault while it was ending.
        row["end"] = "crash";
        row["error"] = d.given + (WIFSIGNALED(status) ? ": the boot was killed by signal " + std::to_string(WTERMSIG(status))
                                                      : ": the boot ended without a summary");
    }
    return row;
}

// Boots every device, jobs at a time; the rows in the order of devices.
std::vector<ordered_json> bootAll(const std::vector<FleetDevice> &devices, const Bytes &package,
                                  const FleetOptions &o, const fs::path &work) {
    const std::vector<int> cores = allowedCores();
    const unsigned jobs = o.jobs ? o.jobs : std::max<unsigned>(1, unsigned(cores.size()));
    std::vector<bool> taken(jobs, false);
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::vector<ordered_json> rows(devices.size());
    std::vector<Child> running;
    size_t next = 0;
    while (next < devices.size() || !running.empty()) {
        while (running.size() < jobs && next < devices.size()) {
            int fds[2];
            if (::pipe2(fds, O_CLOEXEC) != 0) {
                if (running.empty()) fail(1, "cannot make a pipe: " + tarsk_tools::systemError(errno));
                break;
            }
            const unsigned slot = unsigned(std::find(taken.begin(), taken.end(), false) - taken.begin());
            std::fflush(stdout);
            std::fflush(stderr);
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::close(fds[0]);
                if (!cores.empty()) pinTo(cores[slot % cores.size()]);
                if (devNull >= 0) ::dup2(devNull, 1);   // notes and echoes of the boot are not the table's
                bootChild(devices[next], work / std::to_string(next), package, o.timeoutSeconds, fds[1]);
            }
            ::close(fds[1]);
            if (pid < 0) {
                ::close(fds[0]);
                if (running.empty()) fail(1, "cannot start a boot: " + tarsk_tools::systemError(errno));
                break;   // again when a boot has ended
            }
            taken[slot] = true;
            running.push_back({pid, fds[0], next++, slot, {}});
        }
        std::vector<pollfd> polls;
        for (const Child &c : running) polls.push_back({c.fd, POLLIN, 0});
        if (::poll(polls.data(), polls.size(), -1) < 0 && errno != EINTR)
            fail(1, "cannot wait for the boots: " + tarsk_tools::systemError(errno));
        for (size_t i = polls.size(); i-- > 0;) {
            if (!polls[i].revents) continue;
            Child &c = running[i];
            char buf[4096];
            const ssize_t n = ::read(c.fd, buf, sizeof buf);
            if (n > 0) {
                c.out.append(buf, size_t(n));
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            // The pipe closed: the child has ended (or is ending).
            ::close(c.fd);
            int status = 0;
            while (::waitpid(c.pid, &status, 0) < 0 && errno == EINTR) {}
            rows[c.index] = rowOf(devices[c.index], c.out, status);
            taken[c.slot] = false;
            running.erase(running.begin() + long(i));
        }
    }
    if (devNull >= 0) ::close(devNull);
    return rows;
}

std::string cell(const ordered_json &v) {
    if (v.is_null()) return "-";
    if (v.is_string()) return v.get<std::string>();
    return v.dump();
}

const char *const kColumns[] = {"device", "bootloader", "kernel", "region", "format", "request", "end", "started"};

void printTable(const std::vector<ordered_json> &rows) {
    std::vector<std::vector<std::string>> lines(1);
    for (const char *c : kColumns) lines[0].push_back(c);
    for (const ordered_json &row : rows) {
        lines.emplace_back();
        for (const char *c : kColumns) lines.back().push_back(cell(row[c]));
    }
    std::vector<size_t> widths(std::size(kColumns), 0);
    for (const auto &line : lines)
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    for (const auto &line : lines) {
        std::string text;
        for (size_t i = 0; i < line.size(); ++i)
            text += line[i] + (i + 1 < line.size() ? std::string(widths[i] - line[i].size() + 2, ' ') : "");
        std::printf("%s\n", text.c_str());
    }
    std::map<std::string, int> ends;
    for (const ordered_json &row : rows) ++ends[row["end"].get<std::string>()];
    std::string counts;
    for (const auto &[end, count] : ends) counts += (counts.empty() ? "" : ", ") + std::to_string(count) + " " + end;
    std::printf("%zu device%s: %s\n", rows.size(), rows.size() == 1 ? "" : "s", counts.c_str());
}

std::string csvField(const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string out = "\"";
    for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

void printCsv(const std::vector<ordered_json> &rows) {
    std::string text;
    for (const char *c : kColumns) text += std::string(text.empty() ? "" : ",") + c;
    text += "\n";
    for (const ordered_json &row : rows) {
        std::string line;
        for (const char *c : kColumns) {
            const ordered_json &v = row[c];
            line += std::string(line.empty() ? "" : ",") + (v.is_null() ? "" : csvField(cell(v)));
        }
        text += line + "\n";
    }
    std::fputs(text.c_str(), stdout);
}

// Where the copies go: TARSK_FLEET_WORK when set, else the shared-memory file system when there is
// one (a copy lives a few milliseconds; on a disk file system with discards its removal alone costs
// more than the boot), else the temporary folder.
fs::path workBase() {
    if (const char *set = std::getenv("TARSK_FLEET_WORK"); set && *set) return set;
    if (::access("/dev/shm", W_OK | X_OK) == 0) return "/dev/shm";
    return fs::temp_directory_path();
}

// Removes the work folder however the command ends.
struct WorkFolder {
    fs::path path;
    ~WorkFolder() {
        if (!path.empty()) removeFolder(path);
    }
};

}  // namespace

int fleet(const FleetOptions &o) {
    if (!(o.timeoutSeconds > 0) || o.timeoutSeconds > 4.0e6)
        fail(2, "--timeout must be a number of device seconds above 0");
    const Bytes package = readPackage(o);
    const std::vector<FleetDevice> devices = expandDevices(o.devices);

    WorkFolder work;
    const fs::path base = workBase();
    std::string tmpl = (base / "tarsk-fleet-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) fail(2, "cannot make a work folder in " + base.string());
    work.path = tmpl;

    const std::vector<ordered_json> rows = bootAll(devices, package, o, work.path);

    int rc = 0;
    for (const ordered_json &row : rows) {
        if (row.contains("error"))
            std::fprintf(stderr, "%s: error: %s\n", kTool, row["error"].get<std::string>().c_str());
        if (row["end"] == "error") rc = 2;
        else if (row["end"] == "crash" && rc == 0) rc = 1;
    }
    if (o.json) {
        ordered_json list = rows;
        std::printf("%s\n", list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else if (o.csv) {
        printCsv(rows);
    } else {
        printTable(rows);
    }
    return rc;
}

}  // namespace tarsk_sim
