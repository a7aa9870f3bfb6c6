#include "ContainersStorage.h"

#include "sdk/JsonUtils.h"

namespace Container {

namespace {

const char* const kContainersSuffix = "-containers";  // overlay-containers, vfs-containers, ...
const char* const kManager = "io.container.manager";  // "libpod" in every Podman bundle

const char* const kCrioPrefix = "io.kubernetes.cri-o.";
const char* const kCrioContainerType = "io.kubernetes.cri-o.ContainerType";
const char* const kCrioName = "io.kubernetes.cri-o.Name";
const char* const kCrioImageName = "io.kubernetes.cri-o.ImageName";
const char* const kCrioImageRef = "io.kubernetes.cri-o.ImageRef";
const char* const kCrioMountPoint = "io.kubernetes.cri-o.MountPoint";
const char* const kCrioLabels = "io.kubernetes.cri-o.Labels";
const char* const kPodName = "io.kubernetes.pod.name";
const char* const kPodNamespace = "io.kubernetes.pod.namespace";
const char* const kContainerName = "io.kubernetes.container.name";

bool EndsWith(const std::string& text, const std::string& suffix)
{
    return text.size() > suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::vector<std::string> ContainersStorageRuntime::StorageContainerDirs(const SDK::HostRoot& host,
                                                                       Discovery& out)
{
    std::vector<std::string> dirs;
    for (const auto& root : out.where.storageRoots) {
        for (const auto& name : Subdirectories(host, root, out)) {
            if (EndsWith(name, kContainersSuffix) && IsPlainName(name)) {
                dirs.push_back(root + "/" + name);
            }
        }
    }
    return dirs;
}

void ContainersStorageRuntime::Discover(const SDK::HostRoot& host, Discovery& out)
{
    BeginPoll(host, out);
    // The same id has a run-time and a persistent directory: read both.
    std::map<std::string, std::vector<std::string>> userdata;
    for (const auto& dir : StorageContainerDirs(host, out)) {
        for (const auto& id : Subdirectories(host, dir, out)) {
            if (!IsPlainName(id)) {
                out.AddProblem(host, dir + "/" + id, "container id is not a plain name, skipped");
                continue;
            }
            userdata[id].push_back(dir + "/" + id + "/userdata");
        }
    }
    for (const auto& entry : userdata) {
        ReadContainer(host, entry.first, entry.second, out);
    }
}

void ContainersStorageRuntime::ReadContainer(const SDK::HostRoot& host, const std::string& id,
                                             const std::vector<std::string>& userdataDirs,
                                             Discovery& out)
{
    // config.json: the first directory that has one. A stopped container
    // may have none; that is not a problem.
    Json::Value doc;
    std::string bundleDir;
    std::string reason;
    for (const auto& dir : userdataDirs) {
        const SDK::ReadResult r = ReadStateJson(host, dir + "/config.json", kStateFileCap, doc);
        if (!r.ok() && r.error != SDK::ReadError::Missing) {
            out.AddProblem(host, dir + "/config.json", r.reason + ", container skipped");
            out.unsure.insert(id);
            return;
        }
        if (r.ok()) {
            bundleDir = dir;
            break;
        }
    }
    if (bundleDir.empty()) {
        return;
    }
    OciConfig oci;
    if (!ParseOciConfig(doc, oci, reason)) {
        out.AddProblem(host, bundleDir + "/config.json", reason + ", container skipped");
        out.unsure.insert(id);
        return;
    }
    if (!Owns(oci)) {
        return;
    }

    // pidfile: present while the container runs.
    long pid = 0;
    for (const auto& dir : userdataDirs) {
        std::string text;
        const SDK::ReadResult r =
            host.ReadFile(dir + "/pidfile", kPidFileCap, text, SDK::HostRoot::FinalLink::Refuse);
        if (!r.ok() && r.error != SDK::ReadError::Missing) {
            out.AddProblem(host, dir + "/pidfile", r.reason + ", container skipped");
            out.unsure.insert(id);
            return;
        }
        if (r.ok()) {
            pid = ParsePid(text);
            if (pid == 0) {
                out.AddProblem(host, dir + "/pidfile",
                               "does not hold a process id, container skipped");
                out.unsure.insert(id);
                return;
            }
            break;
        }
    }
    if (pid == 0 || !ProcessRunning(host, pid)) {
        return;  // not running
    }

    auto info = std::make_shared<Engine::ContainerInfo>();
    if (!ResolveRootPath(host, bundleDir, oci.rootPath, RootFallback(oci), pid, info->rootPath,
                         reason)) {
        out.AddProblem(host, bundleDir + "/config.json", reason);
        out.unsure.insert(id);
        return;
    }
    FillFromOci(oci, *info);
    info->running = true;
    info->id = id;
    info->text1 = Name();
    info->text3 = host.Path(bundleDir);
    info->text4 = std::to_string(pid);
    Describe(oci, *info);
    if (info->name.empty()) {
        info->name = ShortId(id);
    }
    out.running.push_back(info);
}

void PodmanRuntime::BeginPoll(const SDK::HostRoot& host, Discovery& out)
{
    m_records.clear();
    for (const auto& dir : StorageContainerDirs(host, out)) {
        const std::string path = dir + "/containers.json";
        Json::Value doc;
        SDK::ReadResult r = ReadStateJson(host, path, kIndexFileCap, doc);
        if (r.ok() && !doc.isArray()) {
            r = SDK::ReadResult::Failure(SDK::ReadError::Failed, host.Path(path),
                                         "not a JSON array");
        }
        if (!r.ok() && r.error != SDK::ReadError::Missing) {
            out.AddProblem(host, path, r.reason + "; Podman names and images unknown");
            continue;
        }
        if (!r.ok()) {
            continue;
        }
        // <driver>-containers/containers.json names the image by id; its
        // names are in <driver>-images/images.json.
        const std::string driver =
            dir.substr(0, dir.size() - std::string(kContainersSuffix).size());
        const std::map<std::string, std::string> images = ImageNames(host, driver + "-images", out);
        for (const auto& c : doc) {
            if (!c.isObject() || !c["id"].isString()) {
                continue;
            }
            Record record;
            const Json::Value& names = c["names"];
            if (names.isArray() && !names.empty() && names[0].isString()) {
                record.name = names[0].asString();
            }
            record.imageId = SDK::JsonUtils::GetStringValue(c, "image", "");
            // "metadata" is itself JSON text written by Podman.
            Json::Value metadata;
            const std::string metaText = SDK::JsonUtils::GetStringValue(c, "metadata", "");
            if (!metaText.empty() && SDK::JsonUtils::ParseJsonStr(metaText, metadata) == 0) {
                record.imageName = SDK::JsonUtils::GetStringValue(metadata, "image-name", "");
                if (record.name.empty()) {
                    record.name = SDK::JsonUtils::GetStringValue(metadata, "name", "");
                }
            }
            if (record.imageName.empty()) {
                record.imageName = Lookup(images, record.imageId);
            }
            m_records.emplace(c["id"].asString(), record);
        }
    }
}

std::map<std::string, std::string> PodmanRuntime::ImageNames(const SDK::HostRoot& host,
                                                              const std::string& dir,
                                                              Discovery& out)
{
    std::map<std::string, std::string> names;
    const std::string path = dir + "/images.json";
    Json::Value doc;
    SDK::ReadResult r = ReadStateJson(host, path, kIndexFileCap, doc);
    if (r.ok() && !doc.isArray()) {
        r = SDK::ReadResult::Failure(SDK::ReadError::Failed, host.Path(path), "not a JSON array");
    }
    if (!r.ok()) {
        if (r.error != SDK::ReadError::Missing) {
            out.AddProblem(host, path, r.reason + "; Podman image names unknown");
        }
        return names;
    }
    for (const auto& image : doc) {
        if (image.isObject() && image["id"].isString() && image["names"].isArray() &&
            !image["names"].empty() && image["names"][0].isString()) {
            names[image["id"].asString()] = image["names"][0].asString();
        }
    }
    return names;
}

bool PodmanRuntime::Owns(const OciConfig& oci) const
{
    return !CrioRuntime::IsCrioBundle(oci);
}

void PodmanRuntime::Describe(const OciConfig& oci, Engine::ContainerInfo& info)
{
    auto it = m_records.find(info.id);
    if (it != m_records.end()) {
        info.name = it->second.name;
        info.imageId = it->second.imageId;
        info.imageName = it->second.imageName;
    }
    // Pods created by `podman kube play` carry the Kubernetes names too.
    info.text5 = Lookup(oci.annotations, kPodName);
    info.text6 = Lookup(oci.annotations, kPodNamespace);
    info.text7 = Lookup(oci.annotations, kContainerName);
}

bool CrioRuntime::IsCrioBundle(const OciConfig& oci)
{
    // Podman writes some CRI-O annotations too, for tools that read them.
    if (Lookup(oci.annotations, kManager) == "libpod") {
        return false;
    }
    auto it = oci.annotations.lower_bound(kCrioPrefix);
    return it != oci.annotations.end() && it->first.compare(0, std::string(kCrioPrefix).size(),
                                                            kCrioPrefix) == 0;
}

void CrioRuntime::Describe(const OciConfig& oci, Engine::ContainerInfo& info)
{
    const auto& ann = oci.annotations;
    // The Kubernetes labels travel as one JSON text; the same names may also
    // be annotations of their own.
    std::map<std::string, std::string> labels;
    Json::Value labelDoc;
    const std::string labelText = Lookup(ann, kCrioLabels);
    if (!labelText.empty() && SDK::JsonUtils::ParseJsonStr(labelText, labelDoc) == 0 &&
        labelDoc.isObject()) {
        for (const auto& key : labelDoc.getMemberNames()) {
            if (labelDoc[key].isString()) {
                labels[key] = labelDoc[key].asString();
                info.list3.push_back(key + "=" + labels[key]);
            }
        }
    }
    auto pick = [&](const char* key) {
        std::string v = Lookup(ann, key);
        return v.empty() ? Lookup(labels, key) : v;
    };
    info.text5 = pick(kPodName);
    info.text6 = pick(kPodNamespace);
    info.text7 = pick(kContainerName);
    info.imageName = Lookup(ann, kCrioImageName);
    info.imageId = Lookup(ann, kCrioImageRef);
    if (Lookup(ann, kCrioContainerType) == "sandbox") {
        info.name = info.text5;
    } else {
        info.name = info.text7;
    }
    if (info.name.empty()) {
        info.name = Lookup(ann, kCrioName);
    }
}

std::string CrioRuntime::RootFallback(const OciConfig& oci) const
{
    return Lookup(oci.annotations, kCrioMountPoint);
}

}  // namespace Container
