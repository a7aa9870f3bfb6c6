#pragma once

#include <string>

#include "framework/Policy.h"

namespace Framework {

class AbstractTaskletCallback {
public:
    virtual ~AbstractTaskletCallback() = default;
    virtual int invoke(const std::string& argument) const = 0;
    // true: the action may run long; the engine runs it on a worker thread.
    virtual bool IsLongAction() const = 0;
};

template <class T>
class TaskletCallback : public AbstractTaskletCallback {
public:
    using Method = int (T::*)(const std::string&);

    TaskletCallback(T* object, Method method, bool longAction)
        : m_object(object), m_method(method), m_longAction(longAction) {}

    int invoke(const std::string& argument) const override
    {
        return (m_object->*m_method)(argument);
    }
    bool IsLongAction() const override { return m_longAction; }

private:
    T* m_object;
    Method m_method;
    bool m_longAction;
};

class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;
    // Returns the new policy of the feature (the engine takes it over), or null.
    virtual Policy* invoke(const std::string& featureName, const std::string& content,
                           Policy*& currentPolicy) const = 0;
};

template <class T>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Method = Policy* (T::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(T* object, Method method) : m_object(object), m_method(method) {}

    Policy* invoke(const std::string& featureName, const std::string& content,
                   Policy*& currentPolicy) const override
    {
        return (m_object->*m_method)(featureName, content, currentPolicy);
    }

private:
    T* m_object;
    Method m_method;
};

}  // namespace Framework
