#pragma once

namespace kelto::core {

/** Something that can be called with one argument, as a notification point keeps it. */
template <typename Argument>
class IVoidDelegate1 {
public:
    IVoidDelegate1() = default;
    virtual ~IVoidDelegate1() = default;
    IVoidDelegate1(const IVoidDelegate1&) = delete;
    IVoidDelegate1& operator=(const IVoidDelegate1&) = delete;

    /** Calls the target. What it throws goes on to the caller. */
    virtual void Invoke(Argument argument) = 0;

    /** The object that is called: what a delegate is matched by when it is taken away. */
    virtual const void* GetTarget() const = 0;
};

}  // namespace kelto::core
