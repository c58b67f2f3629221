// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "GlibPtr.h"
#include "PerProcess.h"

#include "appcat.h"

#include <appstream.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <ctime>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

/// The fields of a component's metadata that the catalogue uses.
struct Component {
    std::string id;
    std::string package;
    std::string version;
};

struct appcat_appinfo_s {
    Component component;
};

struct appcat_pkginfo_s {
    Component component;
};

namespace {

namespace fs = std::filesystem;

const GPtrArray* Releases(AsComponent* pComponent) {
#if AS_CHECK_VERSION(1, 0, 0)
    return as_release_list_get_entries(as_component_get_releases_plain(pComponent));
#else
    return as_component_get_releases(pComponent);
#endif
}

std::string NewestVersion(AsComponent* pComponent) {
    const GPtrArray* pReleases = Releases(pComponent);
    const gchar* pNewest = nullptr;
    for (guint i = 0; i < pReleases->len; ++i) {
        const gchar* pVersion =
            as_release_get_version(static_cast<AsRelease*>(g_ptr_array_index(pReleases, i)));
        if (pVersion != nullptr &&
            (pNewest == nullptr || as_vercmp(pVersion, pNewest, AS_VERCMP_FLAG_NONE) > 0)) {
            pNewest = pVersion;
        }
    }
    return pNewest != nullptr ? pNewest : "";
}

// Does not use GFile: the first GFile of a process loads GIO's modules, and some of these start
// threads and connect to the session bus.
std::optional<Component> Parse(const fs::path& path) {
    gchar* pText = nullptr;
    gsize length = 0;
    if (g_file_get_contents(path.c_str(), &pText, &length, nullptr) == FALSE) {
        return std::nullopt;
    }
    const GlibPtr<GBytes> bytes(g_bytes_new_take(pText, length));
    // AppStream parses with libxml2, whose first use on two threads at once is a data race.
    static CPerProcess<std::mutex> mutex;
    const std::lock_guard lock(mutex.Get());
    const GObjectPtr<AsMetadata> metadata(as_metadata_new());
    if (as_metadata_parse_bytes(metadata.get(), bytes.get(), AS_FORMAT_KIND_XML, nullptr) ==
        FALSE) {
        return std::nullopt;
    }
    AsComponent* pComponent = as_metadata_get_component(metadata.get());
    if (pComponent == nullptr || as_component_get_id(pComponent) == nullptr) {
        return std::nullopt;
    }
    Component component;
    component.id = as_component_get_id(pComponent);
    const gchar* pPackage = as_component_get_pkgname(pComponent);
    component.package = pPackage != nullptr ? pPackage : component.id;
    component.version = NewestVersion(pComponent);
    return component;
}

/// Identifies one version of a file's content.
struct FileState {
    explicit FileState(const struct stat& status)
        : inode(status.st_ino),
          size(status.st_size),
          sec(status.st_ctim.tv_sec),
          nsec(status.st_ctim.tv_nsec) {}
    bool operator==(const FileState&) const = default;

    /// @return whether any later change of the file would change this state. A file's time stamp
    ///         advances only every few milliseconds, so two quick changes may get the same one.
    bool IsSettled() const { return time(nullptr) > sec + 1; }

    ino_t inode;
    off_t size;
    time_t sec;
    long nsec;
};

/// Caches components by file, and the file of each package. One look-up needs the same component
/// several times, and parsing it takes longer than the rest of a collector's construction.
///
/// Threads: any; the mutex is not held while a file is read.
class CComponentCache {
  public:
    /// Returns the component of a metadata file. Parses it again only when it has changed.
    std::optional<Component> Read(const fs::path& path) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            return std::nullopt;
        }
        const FileState state(status);
        if (auto cached = Find(path, state)) {
            return cached;
        }
        auto component = Parse(path);
        if (component && state.IsSettled()) {
            const std::lock_guard lock(m_Mutex);
            m_Files.insert_or_assign(path, File{state, *component});
        }
        return component;
    }

    void KeepPath(const std::string& package, const fs::path& path) {
        const std::lock_guard lock(m_Mutex);
        m_Paths[package] = path;
    }

    fs::path FindPath(const std::string& package) {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Paths.find(package);
        return found == m_Paths.end() ? fs::path() : found->second;
    }

  private:
    struct File {
        FileState state;
        Component component;
    };

    std::optional<Component> Find(const fs::path& path, const FileState& state) {
        const std::lock_guard lock(m_Mutex);
        const auto found = m_Files.find(path);
        const bool unchanged = found != m_Files.end() && found->second.state == state;
        return unchanged ? std::optional(found->second.component) : std::nullopt;
    }

    std::mutex m_Mutex;
    std::map<fs::path, File> m_Files;
    std::unordered_map<std::string, fs::path> m_Paths;
};

CComponentCache& ComponentCache() {
    static CPerProcess<CComponentCache> cache;
    return cache.Get();
}

/// The default data folder of another user. That user's XDG_DATA_HOME is not known here.
fs::path DataHome(uid_t uid) {
    std::array<char, 4096> buffer;
    passwd entry{};
    passwd* pFound = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &pFound) != 0 || pFound == nullptr) {
        return {};
    }
    return fs::path(pFound->pw_dir) / ".local/share";
}

/// The data folders that GLib reports: the user's own, then the system's. They never change in a
/// process and are read only once, because GLib takes a lock for them that a fork could leave held.
const std::vector<fs::path>& DataRoots() {
    static std::atomic<const std::vector<fs::path>*> s_pRoots{nullptr};
    if (const auto* pRoots = s_pRoots.load()) {
        return *pRoots;
    }
    auto roots = std::make_unique<std::vector<fs::path>>();
    roots->emplace_back(g_get_user_data_dir());
    for (const gchar* const* pRoot = g_get_system_data_dirs(); *pRoot != nullptr; ++pRoot) {
        roots->emplace_back(*pRoot);
    }
    const std::vector<fs::path>* pFirst = nullptr;
    return s_pRoots.compare_exchange_strong(pFirst, roots.get()) ? *roots.release() : *pFirst;
}

/// The folders with metadata: the user's own, then the system's.
std::vector<fs::path> Folders(uid_t uid) {
    std::vector<fs::path> roots = DataRoots();
    if (uid != getuid()) {
        roots.front() = DataHome(uid);
    }
    std::vector<fs::path> folders;
    for (const fs::path& root : roots) {
        folders.push_back(root / "metainfo");
        folders.push_back(root / "appdata");
    }
    return folders;
}

/// Parses all metadata files until a component matches.
template <class Predicate>
std::optional<std::pair<Component, fs::path>> Scan(uid_t uid, Predicate matches) {
    for (const fs::path& folder : Folders(uid)) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(folder, error)) {
            if (entry.path().extension() != ".xml") {
                continue;
            }
            auto component = Parse(entry.path());
            if (component && matches(*component)) {
                return std::pair(std::move(*component), entry.path());
            }
        }
    }
    return std::nullopt;
}

// Almost every metadata file is named after its component, so these names are tried before a scan.
std::optional<std::pair<Component, fs::path>> FindApplication(const std::string& id, uid_t uid) {
    for (const fs::path& folder : Folders(uid)) {
        for (const char* pEnding : {".metainfo.xml", ".appdata.xml"}) {
            const fs::path path = folder / (id + pEnding);
            auto component = ComponentCache().Read(path);
            if (component && component->id == id) {
                return std::pair(std::move(*component), path);
            }
        }
    }
    return Scan(uid, [&](const Component& component) { return component.id == id; });
}

std::optional<Component> FindPackage(const std::string& package) {
    const auto matches = [&](const Component& component) { return component.package == package; };
    if (const fs::path path = ComponentCache().FindPath(package); !path.empty()) {
        auto component = ComponentCache().Read(path);
        if (component && matches(*component)) {
            return component;
        }
    }
    auto found = Scan(getuid(), matches);
    return found ? std::optional(std::move(found->first)) : std::nullopt;
}

/// Turns exceptions into error codes: the caller is C.
template <class Function>
int Guarded(Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return APPCAT_ERROR_OUT_OF_MEMORY;
    } catch (const std::exception&) {
        return APPCAT_ERROR_UNREADABLE;
    }
}

bool IsPlainName(const char* name) {
    return name != nullptr && *name != '\0' &&
           std::string_view(name).find('/') == std::string_view::npos;
}

}  // namespace

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo) {
    if (!IsPlainName(app_id) || appinfo == nullptr) {
        return APPCAT_ERROR_INVALID_PARAMETER;
    }
    return Guarded([&]() -> int {
        auto found = FindApplication(app_id, uid);
        if (!found) {
            return APPCAT_ERROR_NOT_FOUND;
        }
        ComponentCache().KeepPath(found->first.package, found->second);
        *appinfo = new appcat_appinfo_s{std::move(found->first)};
        return APPCAT_ERROR_NONE;
    });
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid) {
    if (appinfo == nullptr || pkgid == nullptr) {
        return APPCAT_ERROR_INVALID_PARAMETER;
    }
    *pkgid = appinfo->component.package.data();
    return APPCAT_ERROR_NONE;
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo) {
    delete appinfo;
    return appinfo != nullptr ? APPCAT_ERROR_NONE : APPCAT_ERROR_INVALID_PARAMETER;
}

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    if (!IsPlainName(pkgid) || pkginfo == nullptr) {
        return APPCAT_ERROR_INVALID_PARAMETER;
    }
    return Guarded([&]() -> int {
        auto found = FindPackage(pkgid);
        if (!found) {
            return APPCAT_ERROR_NOT_FOUND;
        }
        *pkginfo = new appcat_pkginfo_s{std::move(*found)};
        return APPCAT_ERROR_NONE;
    });
}

int appcat_pkginfo_get_version(appcat_pkginfo_h pkginfo, char** version) {
    if (pkginfo == nullptr || version == nullptr) {
        return APPCAT_ERROR_INVALID_PARAMETER;
    }
    if (pkginfo->component.version.empty()) {
        return APPCAT_ERROR_NO_VERSION;
    }
    *version = pkginfo->component.version.data();
    return APPCAT_ERROR_NONE;
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    delete pkginfo;
    return pkginfo != nullptr ? APPCAT_ERROR_NONE : APPCAT_ERROR_INVALID_PARAMETER;
}
