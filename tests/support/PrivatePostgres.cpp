// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivatePostgres.h"

#include "Eventually.h"

#include <pwd.h>
#include <unistd.h>

#include <stdexcept>

namespace {

const passwd* FindServerUser() {
    const passwd* pUser = getpwnam("postgres");
    return pUser != nullptr ? pUser : getpwnam("nobody");
}

}  // namespace

bool CPrivatePostgres::IsInstalled() {
    return access(POSTGRES_BIN "/initdb", X_OK) == 0;
}

CPrivatePostgres::CPrivatePostgres(Disk disk) : m_Disk(disk) {
    const passwd* pUser = FindServerUser();
    if (geteuid() == 0 &&
        (pUser == nullptr || chown(m_Folder.Path().c_str(), pUser->pw_uid, pUser->pw_gid) != 0)) {
        throw std::runtime_error("no user can own the server");
    }
    if (!Runs("initdb", {"--no-sync", "--auth=trust", "--username=tallyra", "--encoding=UTF8",
                         "--locale=C.UTF-8", "--pgdata=" + (m_Folder.Path() / "data").string()})) {
        throw std::runtime_error("initdb fails: " + m_Folder.Read("log"));
    }
    Start();
}

CPrivatePostgres::~CPrivatePostgres() {
    m_pServer->Signal(SIGINT);
    m_pServer->WaitForExit(kPatience);
}

std::vector<std::string> CPrivatePostgres::CommandOf(const std::string& program) const {
    const std::string path = std::string(POSTGRES_BIN "/") + program;
    if (geteuid() != 0) {
        return {path};
    }
    // The kernel forgets what ends with its parent when the user changes.
    const passwd* pUser = FindServerUser();
    return {"setpriv",
            "--reuid=" + std::to_string(pUser->pw_uid),
            "--regid=" + std::to_string(pUser->pw_gid),
            "--clear-groups",
            "--pdeathsig=QUIT",
            path};
}

bool CPrivatePostgres::Runs(const std::string& program, std::vector<std::string> arguments) const {
    std::vector<std::string> command = CommandOf(program);
    command.insert(command.end(), arguments.begin(), arguments.end());
    const auto log = m_Folder.Path() / "log";
    CChildProcess child(command, {.output = log, .error = log});
    return child.WaitForExit(kPatience) == 0;
}

void CPrivatePostgres::Start() {
    const std::string folder = m_Folder.Path();
    std::vector<std::string> command = CommandOf("postgres");
    for (const std::string setting :
         {"listen_addresses=", "shared_buffers=128MB", "max_wal_size=2GB", "log_statement=none",
          m_Disk == Disk::IGNORED ? "fsync=off" : "fsync=on"}) {
        command.insert(command.end(), {"-c", setting});
    }
    command.insert(command.end(), {"-k", folder, "-D", folder + "/data"});
    const auto log = m_Folder.Path() / "server.log";
    m_pServer = std::make_unique<CChildProcess>(command, ChildOptions{.output = log, .error = log});
    if (!Eventually([&] { return Runs("pg_isready", {"-q", "-h", folder}); }, kPatience)) {
        throw std::runtime_error("PostgreSQL does not start: " + m_Folder.Read("server.log"));
    }
}

void CPrivatePostgres::Restart() {
    m_pServer->Signal(SIGQUIT);
    m_pServer->WaitForExit(kPatience);
    Start();
}

std::string CPrivatePostgres::Url(const std::string& database) const {
    return "postgresql://tallyra@/" + database + "?host=" + m_Folder.Path().string();
}

void CPrivatePostgres::CreateDatabase(const std::string& name) const {
    if (!Runs("createdb", {"-h", m_Folder.Path(), "-U", "tallyra", name})) {
        throw std::runtime_error("createdb fails: " + m_Folder.Read("log"));
    }
}
