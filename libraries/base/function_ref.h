// function_ref.h - a non-owning reference to a callable, so that a helper
// can take a lambda without allocating (as std::function may).
#ifndef ZLDAP_FUNCTION_REF_H
#define ZLDAP_FUNCTION_REF_H

#include <type_traits>
#include <utility>

namespace zldap {

template <class Signature> class FunctionRef;

template <class R, class... Args> class FunctionRef<R(Args...)> {
public:
    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, FunctionRef>>>
    FunctionRef(F &&f) // NOLINT: implicit by design
        : object_(const_cast<void *>(static_cast<const void *>(&f))),
          call_([](void *object, Args... args) -> R {
              return (*static_cast<std::remove_reference_t<F> *>(object))(std::forward<Args>(args)...);
          })
    {
    }
    R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

private:
    void *object_;
    R (*call_)(void *, Args...);
};

} // namespace zldap

#endif
