#include "ImageBuilder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrow::images {

namespace {

std::string commandLine(const std::vector<std::string>& argv) {
    std::string line;
    for (const auto& arg : argv) {
        if (!line.empty())
            line += ' ';
        line += arg;
    }
    return line;
}

struct ToolResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Reads all that is left in `fd` and closes it.
std::string drain(int fd) {
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    ::close(fd);
    return text;
}

ToolResult spawn(const std::vector<std::string>& argv) {
    if (argv.empty())
        throw std::invalid_argument("no program to run");
    int outPipe[2];
    if (::pipe(outPipe) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    // stderr goes to an unnamed temporary file rather than a second pipe, so a
    // chatty tool cannot block on a full pipe while stdout is being read.
    std::FILE* errFile = std::tmpfile();
    if (!errFile)
        throw std::runtime_error(std::string("tmpfile: ") + std::strerror(errno));
    const int errFd = ::fileno(errFile);
    const pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::dup2(errFd, STDERR_FILENO);
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        std::vector<char*> args;
        for (const auto& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        std::fprintf(stderr, "cannot run %s: %s\n", args[0], std::strerror(errno));
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ToolResult result;
    result.out = drain(outPipe[0]);
    while (::waitpid(pid, &result.status, 0) < 0) {
        if (errno != EINTR) {
            std::fclose(errFile);
            throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
        }
    }
    ::lseek(errFd, 0, SEEK_SET);
    result.err = drain(::dup(errFd));
    std::fclose(errFile);
    return result;
}

ToolResult runChecked(const std::vector<std::string>& argv) {
    auto result = spawn(argv);
    if (!WIFEXITED(result.status) || WEXITSTATUS(result.status) != 0) {
        std::cerr << result.out << result.err;
        throw std::runtime_error("command failed (status " + std::to_string(result.status) +
                                 "): " + commandLine(argv));
    }
    return result;
}

} // namespace

void runTool(const std::vector<std::string>& argv) {
    runChecked(argv);
}

std::string runToolForOutput(const std::vector<std::string>& argv) {
    return runChecked(argv).out;
}

void createSparseFile(const std::filesystem::path& path, std::uint64_t size) {
    std::filesystem::remove(path);
    {
        std::ofstream create(path, std::ios::binary | std::ios::trunc);
        if (!create)
            throw std::runtime_error("cannot create " + path.string());
    }
    std::filesystem::resize_file(path, size);
}

void copyInto(const std::filesystem::path& from, const std::filesystem::path& to,
              std::uint64_t offset) {
    const auto fromSize = std::filesystem::file_size(from);
    if (std::filesystem::file_size(to) < offset + fromSize)
        throw std::runtime_error(from.string() + " does not fit into " + to.string() + " at " +
                                 std::to_string(offset));
    std::ifstream in(from, std::ios::binary);
    std::fstream out(to, std::ios::binary | std::ios::in | std::ios::out);
    if (!in || !out)
        throw std::runtime_error("cannot copy " + from.string() + " into " + to.string());
    std::vector<char> block(1 << 20);
    std::uint64_t position = 0;
    while (position < fromSize) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        const auto got = static_cast<std::size_t>(in.gcount());
        if (got == 0)
            throw std::runtime_error("short read of " + from.string());
        bool allZero = true;
        for (std::size_t i = 0; i < got && allZero; ++i)
            allZero = block[i] == 0;
        if (!allZero) {
            out.seekp(static_cast<std::streamoff>(offset + position));
            out.write(block.data(), static_cast<std::streamsize>(got));
        }
        position += got;
    }
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + to.string());
}

std::string sha256Of(const std::filesystem::path& file) {
    const auto output = runToolForOutput({"sha256sum", "--binary", file.string()});
    const auto end = output.find(' ');
    if (end != 64)
        throw std::runtime_error("unexpected sha256sum output: " + output);
    return output.substr(0, end);
}

void formatNtfs(const std::filesystem::path& path, const NtfsFormat& format) {
    createSparseFile(path, format.size);
    std::vector<std::string> argv = {"mkntfs",
                                     "--force",
                                     "--quiet",
                                     "--fast",
                                     "--zero-time",
                                     "--sector-size",
                                     std::to_string(format.bytesPerSector),
                                     "--cluster-size",
                                     std::to_string(format.bytesPerCluster),
                                     "--label",
                                     format.label,
                                     "--partition-start",
                                     std::to_string(format.partitionStartSector)};
    // A partition gets the usual BIOS geometry so that the boot sector looks
    // like one Windows made; a bare volume keeps none.
    if (format.partitionStartSector != 0) {
        argv.insert(argv.end(), {"--heads", "255", "--sectors-per-track", "63"});
    } else {
        argv.insert(argv.end(), {"--heads", "0", "--sectors-per-track", "0"});
    }
    argv.push_back(path.string());
    runTool(argv);
}

} // namespace kestrow::images
