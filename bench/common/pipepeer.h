#pragma once

// A program started on two plain pipes and spoken to in native-messaging frames with blocking
// reads and writes, as a browser does: nothing of the benchmark's own event loop is timed.
#include <QByteArray>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

class PipePeer
{
public:
    // `environment` holds "NAME=value" entries; empty means this process's own environment.
    // `launcher` is a command (and its arguments) that is given the program to run.
    explicit PipePeer(const std::string& program, const std::vector<std::string>& environment = {},
                      const std::vector<std::string>& launcher = {})
    {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0)
            std::abort();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, in[1]);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::vector<char*> argv;
        for (const std::string& word : launcher)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(const_cast<char*>(program.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& entry : environment)
            envp.push_back(const_cast<char*>(entry.c_str()));
        envp.push_back(nullptr);
        if (posix_spawnp(&pid, argv.front(), &actions, nullptr, argv.data(), environment.empty() ? environ : envp.data())
            != 0)
            std::abort();
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        toPeer = in[1];
        fromPeer = out[0];
    }

    ~PipePeer()
    {
        close(toPeer);
        close(fromPeer);
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }

    PipePeer(const PipePeer&) = delete;
    PipePeer& operator=(const PipePeer&) = delete;

    void send(const QByteArray& payload)
    {
        const uint32_t length = uint32_t(payload.size());
        writeAll(&length, 4);
        writeAll(payload.constData(), size_t(payload.size()));
    }

    QByteArray receive()
    {
        uint32_t length = 0;
        readAll(&length, 4);
        QByteArray payload(int(length), '\0');
        readAll(payload.data(), length);
        return payload;
    }

    pid_t processId() const { return pid; }

private:
    void writeAll(const void* data, size_t size)
    {
        auto* p = static_cast<const char*>(data);
        while (size > 0) {
            const ssize_t n = write(toPeer, p, size);
            if (n <= 0)
                std::abort();
            p += n;
            size -= size_t(n);
        }
    }

    void readAll(void* data, size_t size)
    {
        auto* p = static_cast<char*>(data);
        while (size > 0) {
            const ssize_t n = read(fromPeer, p, size);
            if (n <= 0) {
                std::fprintf(stderr, "peer closed its output\n");
                std::exit(2);
            }
            p += n;
            size -= size_t(n);
        }
    }

    pid_t pid = 0;
    int toPeer = -1;
    int fromPeer = -1;
};
