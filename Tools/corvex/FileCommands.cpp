// The file commands: ls, stat and cp, on the same FileBackend and FileTransfer code the app
// uses. A path that begins with ":" is on the daemon's machine; any other is on this one.

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <mutex>
#include <unistd.h>

#include "CorvexKit/CorvexdBackendFiles.h"
#include "CorvexKit/FileCodec.h"
#include "CorvexKit/FileTransfer.h"
#include "CorvexKit/LocalFileBackend.h"
#include "Tools/corvex/Commands.h"

namespace corvex::cli {

namespace {

struct Place {
    bool remote = false;
    std::string path;
};

Place place(const std::string& argument) {
    if (argument.starts_with(":")) return {true, argument.size() == 1 ? "~" : argument.substr(1)};
    return {false, argument};
}

// Local paths may be relative, as in any shell command; the file layer wants them absolute.
std::string absoluteLocal(const std::string& path) {
    if (path.starts_with("/") || path == "~" || path.starts_with("~/")) return path;
    char buffer[4096];
    if (!::getcwd(buffer, sizeof buffer)) throw BackendError("io_error", "can't read the working directory");
    return path == "." ? std::string(buffer) : filePath(buffer, path);
}

std::shared_ptr<FileBackend> backendFor(bool remote, CorvexdBackend& daemon) {
    if (!remote) return std::make_shared<LocalFileBackend>();
    auto files = CorvexdFileBackend::attach(daemon.shared_from_this());
    if (!files->supportsFiles()) throw BackendError("unsupported", "this corvexd serves no files");
    return files;
}

std::string resolvedPath(const Place& where) { return where.remote ? where.path : absoluteLocal(where.path); }

std::string modeText(const FileEntry& entry) {
    std::string text = entry.link ? "l" : entry.isDirectory() ? "d" : entry.type == FileType::file ? "-" : "?";
    const char* letters = "rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) text += (entry.mode & (0400 >> bit)) ? letters[bit] : '-';
    return text;
}

std::string timeText(double seconds) {
    std::time_t when = static_cast<std::time_t>(seconds);
    std::tm local{};
    ::localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string longLine(const FileEntry& entry) {
    char size[32];
    std::snprintf(size, sizeof size, "%12" PRIu64, entry.size);
    std::string line = modeText(entry) + " " + size + " " + timeText(entry.mtime) + " " + entry.name;
    if (entry.target) line += " -> " + *entry.target;
    return line;
}

std::string shortName(const FileEntry& entry) { return entry.isDirectory() ? entry.name + "/" : entry.name; }

std::string byteText(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

std::string durationText(double seconds) {
    long whole = std::lround(std::ceil(seconds)); // never "0 s left" while work remains
    char text[32];
    if (whole < 60) {
        std::snprintf(text, sizeof text, "%ld s", whole);
    } else if (whole < 3600) {
        std::snprintf(text, sizeof text, "%ld min %ld s", whole / 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld h %ld min", whole / 3600, whole / 60 % 60);
    }
    return text;
}

// One line, redrawn in place at most ten times a second, while standard error is a terminal.
class ProgressLine {
public:
    ProgressLine(std::ostream& err, bool terminal) : err_(err), terminal_(terminal) {}

    void show(const FileTransfer::Progress& progress) {
        if (!terminal_) return;
        std::lock_guard guard(lock_);
        auto now = Clock::now();
        bool last = progress.totalFiles > 0 && progress.doneFiles == progress.totalFiles;
        if (!last && now - shown_ < std::chrono::milliseconds(100)) return;
        shown_ = now;
        err_ << "\r\x1b[K" << progress.doneFiles << " of " << progress.totalFiles << " files, "
             << byteText(static_cast<double>(progress.doneBytes)) << " of "
             << byteText(static_cast<double>(progress.totalBytes)) << ", " << byteText(rate(progress.doneBytes)) << "/s";
        double perSecond = rate(progress.doneBytes);
        if (!last && perSecond > 0 && progress.totalBytes > progress.doneBytes) {
            err_ << ", " << durationText(static_cast<double>(progress.totalBytes - progress.doneBytes) / perSecond)
                 << " left";
        }
        err_ << std::flush;
        drawn_ = true;
    }

    void end(const FileTransfer::Progress& progress) {
        std::lock_guard guard(lock_);
        if (drawn_) err_ << "\n";
        if (terminal_) return;
        err_ << "copied " << progress.doneFiles - progress.skippedFiles << " files";
        if (progress.skippedFiles > 0) err_ << " (" << progress.skippedFiles << " skipped)";
        char took[32];
        std::snprintf(took, sizeof took, "%.2f s", seconds());
        err_ << ", " << progress.doneBytes << " bytes in " << took << " (" << byteText(rate(progress.doneBytes))
             << "/s)\n";
    }

private:
    using Clock = std::chrono::steady_clock;
    double seconds() const { return std::chrono::duration<double>(Clock::now() - started_).count(); }
    double rate(uint64_t bytes) const { return seconds() > 0 ? static_cast<double>(bytes) / seconds() : 0; }

    std::ostream& err_;
    bool terminal_;
    std::mutex lock_;
    Clock::time_point started_ = Clock::now();
    Clock::time_point shown_{};
    bool drawn_ = false;
};

bool isOneFile(FileBackend& files, const std::vector<std::string>& paths) {
    if (paths.size() != 1) return false;
    try {
        return files.stat(paths.front()).type == FileType::file;
    } catch (const BackendError&) {
        return false; // the copy itself says what is wrong with it
    }
}

} // namespace

CommandRun parseLs(Arguments& args) {
    bool all = args.flag("-a"), longForm = args.flag("-l");
    if (args.flag("-la") || args.flag("-al")) all = longForm = true;
    std::optional<std::string> path = args.optionalPositional();
    if (!path) {
        if (all || longForm) throw UsageError("-a and -l need a PATH");
        return parseTree(args);
    }
    Place where = place(*path);
    args.finish();
    if (!where.remote) args.runHereAlone();
    return [=](CorvexdBackend& daemon, Streams& io) {
        auto files = backendFor(where.remote, daemon);
        std::string path = resolvedPath(where);
        FileEntry entry = files->stat(path);
        if (!entry.isDirectory()) {
            io.out << (longForm ? longLine(entry) : entry.name) << "\n";
            return 0;
        }
        auto [dir, children] = listAll(*files, path, all);
        for (const FileEntry& child : children) io.out << (longForm ? longLine(child) : shortName(child)) << "\n";
        return 0;
    };
}

CommandRun parseStat(Arguments& args) {
    Place where = place(args.positional("PATH"));
    args.finish();
    if (!where.remote) args.runHereAlone();
    return [=](CorvexdBackend& daemon, Streams& io) {
        auto files = backendFor(where.remote, daemon);
        io.out << encodeText(files->stat(resolvedPath(where))) << "\n";
        return 0;
    };
}

CommandRun parseCp(Arguments& args) {
    bool skip = args.flag("--skip"), overwrite = args.flag("--overwrite");
    if (skip && overwrite) throw UsageError("--skip and --overwrite exclude each other");
    int streams = 4;
    if (auto value = args.option("--streams")) {
        streams = parseInt(*value, "--streams");
        if (streams < 1 || streams > 64) throw UsageError("--streams must lie in 1...64");
    }
    std::vector<std::string> items = args.remainingPositionals();
    args.finish();
    if (items.size() < 2) throw UsageError("cp needs SOURCE... DEST");
    Place destination = place(items.back());
    items.pop_back();
    std::vector<Place> sources;
    for (const auto& item : items) sources.push_back(place(item));
    for (const auto& source : sources) {
        if (source.remote != sources.front().remote)
            throw UsageError("the sources of one cp must all be here or all be on the daemon's machine");
    }
    if (!destination.remote && !sources.front().remote) args.runHereAlone();
    auto conflict = skip ? FileTransfer::Conflict::skip
                         : overwrite ? FileTransfer::Conflict::replace : FileTransfer::Conflict::fail;
    return [=](CorvexdBackend& daemon, Streams& io) {
        auto from = backendFor(sources.front().remote, daemon);
        auto to = sources.front().remote == destination.remote ? from : backendFor(destination.remote, daemon);
        FileTransfer transfer(from, to);
        transfer.maxStreams = streams;
        // Small files keep many more in flight, within the daemon's 32 streams for one client
        // (each file takes two when both ends are on it). The more go at once, the more of
        // them each wake-up of ssh, the bridge and the daemon carries on a busy machine.
        const bool bothOnDaemon = sources.front().remote && destination.remote;
        transfer.smallFileStreams = std::max(streams, bothOnDaemon ? 16 : 32);
        // A daemon that counts puts apart takes many more of them, and syncs them in groups.
        auto daemonFiles = std::dynamic_pointer_cast<CorvexdFileBackend>(to);
        if (int puts = daemonFiles && !sources.front().remote ? daemonFiles->putsAtOnce() : 0) {
            transfer.smallFileStreams = std::max(streams, puts);
            transfer.smallFileSize = protocol::fsPutLargest;
        } else if (daemonFiles && !sources.front().remote && daemonFiles->writeBatchLimits(*from)) {
            // Files from here that the daemon would copy itself go in batches when small.
            transfer.smallFileStreams = std::max(streams, protocol::fsPutsAtOnce);
            transfer.smallFileSize = protocol::fsPutLargest;
        }
        // Larger pieces than the app's default: fewer frames and wake-ups for the same bytes.
        transfer.chunk = 1 << 20;
        std::vector<std::string> paths;
        for (const auto& source : sources) paths.push_back(resolvedPath(source));
        // One file from here to a daemon is one stream that carries everything, paced by its
        // window: each piece crosses ssh, sshd and the bridge before the daemon's ack comes
        // back, and the default 4 MiB in flight leaves that pipeline idle between acks. It
        // gets the most a daemon grants a write. A tree keeps the default: its streams fill
        // the pipeline together, within what the daemon holds for one client.
        if (destination.remote && !sources.front().remote && isOneFile(*from, paths)) transfer.window = 16 << 20;
        std::string into = resolvedPath(destination);
        // "cp FILE NEWNAME": a destination that isn't a directory names the one copy.
        std::optional<FileEntry> target;
        try {
            target = to->stat(into);
        } catch (const BackendError& error) {
            if (fileErrorCode(error) != FileErrorCode::notFound) throw;
        }
        if (!target || !target->isDirectory()) {
            if (paths.size() > 1) throw fileError(FileErrorCode::notADirectory, into + " isn't a directory");
            auto slash = into.find_last_of('/');
            transfer.targetName = into.substr(slash + 1);
            into = slash == 0 ? "/" : into.substr(0, slash);
        }
        ProgressLine line(io.err, ::isatty(STDERR_FILENO) == 1);
        transfer.onRetry = [&io](const std::string& path, const BackendError& error, int attempt) {
            io.err << "\ncorvex: " << error.code() << ": " << path << ": " << error.message() << "; attempt "
                   << attempt << " soon\n";
        };
        transfer.copy(paths, into, conflict, [&line](const FileTransfer::Progress& progress) { line.show(progress); });
        line.end(transfer.progress());
        return 0;
    };
}

} // namespace corvex::cli
