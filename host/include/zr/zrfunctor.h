#pragma once

#include <cstddef>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zr/export.h>
#include <zr/zrerror.h>
#include <zr/zrvalue.h>

namespace ZR {

/// A wrong argument given to a method called by name: thrown by a functor with the 1-based
/// index of the argument; the broker reports it as a ZRError of the called module and method.
class BEXKO_API ZRArgumentError : public ZRError {
 public:
  ZRArgumentError(int index, const std::string& message);
  ~ZRArgumentError() override;
  int index() const { return index_; }

 private:
  int index_;
};

/// A callable bound to a published method: takes its arguments as ZRValues and returns the
/// result as a ZRValue (empty for void).
class ZRFunctor {
 public:
  virtual ~ZRFunctor() = default;
  virtual ZRValue call(const std::vector<ZRValue>& args) = 0;
  virtual int arity() const = 0;
};

using ZRFunctorPtr = boost::shared_ptr<ZRFunctor>;

namespace detail {

template <typename T>
std::decay_t<T> convertArgument(const std::vector<ZRValue>& args, std::size_t index) {
  try {
    return ZRValueConverter<std::decay_t<T>>::fromValue(args[index]);
  } catch (const ZRArgumentError&) {
    throw;
  } catch (const ZRError& e) {
    throw ZRArgumentError(static_cast<int>(index) + 1, e.what());
  }
}

template <typename Obj, typename Fn, typename R, typename... A>
class MemberFunctor : public ZRFunctor {
 public:
  MemberFunctor(Obj* object, Fn fn) : object_(object), fn_(fn) {}

  ZRValue call(const std::vector<ZRValue>& args) override {
    if (args.size() != sizeof...(A)) {
      throw ZRArgumentError(0, "expected " + std::to_string(sizeof...(A)) + " arguments, got " +
                                   std::to_string(args.size()));
    }
    return invoke(args, std::index_sequence_for<A...>{});
  }
  int arity() const override { return static_cast<int>(sizeof...(A)); }

 private:
  template <std::size_t... I>
  ZRValue invoke(const std::vector<ZRValue>& args, std::index_sequence<I...>) {
    // Convert every argument before the call so that a bad one reports its own index.
    std::tuple<std::decay_t<A>...> converted{convertArgument<A>(args, I)...};
    (void)converted;
    if constexpr (std::is_void<R>::value) {
      (object_->*fn_)(std::get<I>(converted)...);
      return ZRValue();
    } else {
      return toZRValue((object_->*fn_)(std::get<I>(converted)...));
    }
  }

  Obj* object_;
  Fn fn_;
};

}  // namespace detail

/// A functor calling `member` on `object`; the object must outlive the functor (modules own
/// their method table).
template <typename C, typename R, typename... A>
ZRFunctorPtr createFunctor(C* object, R (C::*member)(A...)) {
  return ZRFunctorPtr(
      new detail::MemberFunctor<C, R (C::*)(A...), R, A...>(object, member));
}

template <typename C, typename R, typename... A>
ZRFunctorPtr createFunctor(const C* object, R (C::*member)(A...) const) {
  return ZRFunctorPtr(
      new detail::MemberFunctor<const C, R (C::*)(A...) const, R, A...>(object, member));
}

template <typename C, typename R, typename... A>
ZRFunctorPtr createFunctor(C* object, R (C::*member)(A...) const) {
  return createFunctor(static_cast<const C*>(object), member);
}

}  // namespace ZR
