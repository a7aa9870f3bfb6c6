#pragma once
// The "detect_webshell" feature policy and the schedule of the periodic scan.
//
// Document (keys exact; "content" is a nested object):
//   feature_name, hash, enabled                     root
//   customize_scan_paths, default_scan_paths        content, required arrays
//   lib_version, lib_url, lib_hash                  content, all three required non-empty strings
//   monitor_file_change, monitor_container          content, bool, default false
//   file_type                                       content, "php,jsp,..." (no dots)
//   max_file_size                                   content, bytes, default 10485760 (<= 0: no limit)
//   upload_file_count_per_day                       content, default 100
//   certain_min_score                               content, integer, optional: a rule without a
//                                                   deciding tag whose "score" meta is at least
//                                                   this counts as certain (absent: off)
//   allow                                           content, object, optional: {"paths": [globs],
//                                                   "sha256": [hex], "rules": [names]}, matches
//                                                   that are neither events nor uploads (AllowList.h)
//   quarantine_certain                              content, bool, default false: move certain
//                                                   files to data/quarantine/ (Quarantine.h)
//   auto_scan_task.task_condition                   content, required: the periodic task's schedule
// A key of another type is refused, naming it; an unknown key is reported.

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "framework/Policy.h"
#include "webshell/AllowList.h"

namespace Engine {

class DetectWebshellTaskPolicy : public Framework::TaskPolicy {
public:
    explicit DetectWebshellTaskPolicy(const std::string& name);
    ~DetectWebshellTaskPolicy() override;

    // `content` is the "auto_scan_task" object as text.
    bool Parse(const std::string& content) override;
};

class DetectWebshellPolicy : public Framework::FeaturePolicy {
public:
    explicit DetectWebshellPolicy(const std::string& name);
    ~DetectWebshellPolicy() override;

    // Every key is checked first: a required key that is absent, a value of
    // the wrong type, an empty rule-library key, a schedule that does not
    // parse, or a NUL or other control character in a scan path, "lib_url"
    // or "file_type" refuses the document, each reason naming its key. An
    // unknown key is a warning only.
    bool Parse(const std::string& content) override;
    // Why the last Parse returned false, naming the keys ("" after success).
    const std::string& GetRefusal() const { return m_refusal; }
    // Every error and warning the last Parse found.
    const Framework::PolicyCheck& GetCheck() const { return m_check; }

    const std::list<std::string>& GetCustomizeScanPathList() const { return m_customizeScanPathList; }
    const std::list<std::string>& GetDefaultScanPathList() const { return m_defaultScanPathList; }
    const std::string& GetLibVersion() const { return m_libVersion; }
    const std::string& GetLibHash() const { return m_libHash; }
    const std::string& GetLibUrl() const { return m_libUrl; }
    const std::string& GetFileType() const { return m_fileType; }
    bool IsMonitorFileChange() const { return m_monitorFileChange; }
    bool IsMonitorContainer() const { return m_monitorContainer; }
    int GetMaxFileSize() const { return m_maxFileSize; }
    int GetUploadFileCountPerDay() const { return m_uploadFileCountPerDay; }
    const std::optional<int64_t>& GetCertainMinScore() const { return m_certainMinScore; }
    const AllowEntries& GetAllow() const { return m_allow; }
    bool IsQuarantineCertain() const { return m_quarantineCertain; }

    void SetCustomizeScanPathList(const std::list<std::string>& paths) { m_customizeScanPathList = paths; }
    void SetDefaultScanPathList(const std::list<std::string>& paths) { m_defaultScanPathList = paths; }
    void SetLibVersion(const std::string& version) { m_libVersion = version; }
    void SetLibHash(const std::string& hash) { m_libHash = hash; }
    void SetLibUrl(const std::string& url) { m_libUrl = url; }
    void SetMonitorFileChange(bool monitor) { m_monitorFileChange = monitor; }
    void SetFileType(const std::string& fileType) { m_fileType = fileType; }
    void SetMaxFileSize(int size) { m_maxFileSize = size; }
    void SetUploadFileCountPerDay(int count) { m_uploadFileCountPerDay = count; }
    void SetCertainMinScore(const std::optional<int64_t>& score) { m_certainMinScore = score; }

private:
    std::list<std::string> m_customizeScanPathList;
    std::list<std::string> m_defaultScanPathList;
    std::string m_libVersion;
    std::string m_libHash;
    std::string m_libUrl;
    bool m_monitorFileChange = false;
    std::string m_fileType;
    int m_maxFileSize = 10485760;
    int m_uploadFileCountPerDay = 100;
    bool m_monitorContainer = false;
    std::optional<int64_t> m_certainMinScore;
    AllowEntries m_allow;
    bool m_quarantineCertain = false;
    std::string m_refusal;
    Framework::PolicyCheck m_check;
};

}  // namespace Engine
