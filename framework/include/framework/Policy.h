#pragma once
// Policies are reference counted: the engine holds the current policy of a
// feature, every task of the feature holds it too, and a replaced policy
// lives until the last task that may still read it lets go.

#include <list>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/RefCountedObject.h>

#include "framework/TaskCondition.h"

namespace Framework {

// What checking a policy document found. Each error refuses the document and
// names the key ("content.max_file_size must be an integer"); a warning does
// not refuse it ("unknown key content.monitor_file_chnage").
struct PolicyCheck {
    std::vector<std::string> errors;
    std::vector<std::string> warnings;

    bool Good() const { return errors.empty(); }
    // The errors joined with "; ".
    std::string ErrorText() const;
};

class Policy : public Poco::RefCountedObject {
public:
    enum PolicyType { POLICY_BASE = 0, POLICY_FEATURE = 1, POLICY_TASK = 2 };

    Policy(int typeCode, const std::string& name) : m_typeCode(typeCode), m_name(name) {}
    ~Policy() override = default;

    virtual bool Parse(const std::string& content) = 0;
    // Hands this policy to the tasks it is meant for. `parent` is the policy
    // this one is a child of (null at the top).
    virtual void Dispatch(Policy* parent) = 0;
    // true when `hash` differs from the stored hash or `version` from the
    // stored version.
    virtual bool PolicyChanged(const std::string& hash, const std::string& version);

    int GetTypeCode() const { return m_typeCode; }
    bool IsExpired() const { return m_expired; }
    void SetExpired(bool expired = true) { m_expired = expired; }
    const std::string& GetName() const { return m_name; }
    void SetName(const std::string& name) { m_name = name; }
    const std::string& GetHash() const { return m_hash; }
    void SetHash(const std::string& hash) { m_hash = hash; }
    const std::string& GetVersion() const { return m_version; }
    void SetVersion(const std::string& version) { m_version = version; }
    bool IsEnabled() const { return m_enabled; }
    void SetEnabled(bool enabled) { m_enabled = enabled; }

private:
    int m_typeCode;
    bool m_expired = false;
    std::string m_name;
    std::string m_hash;
    std::string m_version;
    bool m_enabled = true;
};

// A policy with owned children (a feature policy and its task policies).
class CompositePolicy : public Policy {
public:
    using Policy::Policy;
    ~CompositePolicy() override;

    // Takes ownership of `child`.
    void Add(Policy* child);
    const std::list<Poco::AutoPtr<Policy>>& GetChildren() const { return m_children; }

private:
    std::list<Poco::AutoPtr<Policy>> m_children;
};

// The policy of one feature ("detect_webshell"); its name is the feature name.
class FeaturePolicy : public CompositePolicy {
public:
    explicit FeaturePolicy(const std::string& name) : CompositePolicy(POLICY_FEATURE, name) {}

    // Stores this policy as the feature policy of every registered task of
    // the feature, then dispatches each child with this as its parent.
    void Dispatch(Policy* parent) override;
};

// The schedule of one task; its name is the task's name.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& name) : Policy(POLICY_TASK, name) {}

    // Parses the "task_condition" text into this policy's condition; `why`
    // says what is wrong with a text that does not parse.
    bool ParseCondition(const std::string& text);
    bool ParseCondition(const std::string& text, std::string& why);
    // By default the whole content is the condition.
    bool Parse(const std::string& content) override { return ParseCondition(content); }
    const TaskCondition& GetCondition() const { return m_condition; }

    // Gives the condition to the registered task of this policy's name.
    void Dispatch(Policy* parent) override;

private:
    TaskCondition m_condition;
};

}  // namespace Framework
