#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/function.hpp>

#include <zr/zrvalue.h>

namespace ko {

using SignalLink = std::uint64_t;
constexpr SignalLink InvalidSignalLink = 0;

/// A subscriber that receives a signal's arguments in their ZRValue form, for clients that do
/// not know the signal's C++ type (remote clients, generic connect by name).
using GenericSubscriber = std::function<void(const std::vector<ZR::ZRValue>&)>;

/// What every signal offers without its argument types.
class SignalBase {
 public:
  virtual ~SignalBase() = default;
  /// Connects a subscriber that receives the arguments converted with ZRValueConverter.
  virtual SignalLink connectGeneric(GenericSubscriber subscriber) = 0;
  /// Removes a connection; false when the link is unknown.
  virtual bool disconnect(SignalLink link) = 0;
  virtual bool hasSubscribers() const = 0;
};

namespace detail {
BEXKO_API SignalLink nextSignalLink();

template <typename T, std::size_t... I>
T argsFromValues(const std::vector<ZR::ZRValue>& values, std::index_sequence<I...>);
}  // namespace detail

/// A typed signal. Subscribers run synchronously on the triggering thread, in connection order,
/// with no lock of the signal held; an exception from one subscriber is swallowed so that the
/// others still run. Connecting and disconnecting are safe from any thread, also from inside a
/// subscriber.
template <typename... T>
class Signal : public SignalBase {
 public:
  using Subscriber = std::function<void(T...)>;

  /// `onSubscribers` is told true when the first subscriber connects and false when the last
  /// one leaves; it may be empty.
  explicit Signal(boost::function<void(bool)> onSubscribers = {})
      : onSubscribers_(std::move(onSubscribers)) {}
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  SignalLink connect(Subscriber subscriber) {
    SignalLink link = detail::nextSignalLink();
    bool first = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      first = subscribers_.empty();
      subscribers_.emplace(link, std::make_shared<Subscriber>(std::move(subscriber)));
    }
    if (first && onSubscribers_) onSubscribers_(true);
    return link;
  }

  SignalLink connectGeneric(GenericSubscriber subscriber) override {
    return connect([subscriber](T... args) {
      subscriber(std::vector<ZR::ZRValue>{ZR::toZRValue(args)...});
    });
  }

  bool disconnect(SignalLink link) override {
    bool last = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (subscribers_.erase(link) == 0) return false;
      last = subscribers_.empty();
    }
    if (last && onSubscribers_) onSubscribers_(false);
    return true;
  }

  bool hasSubscribers() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return !subscribers_.empty();
  }

  /// Calls every subscriber with the arguments.
  void trigger(T... args) {
    std::vector<std::shared_ptr<Subscriber>> current;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto& entry : subscribers_) current.push_back(entry.second);
    }
    for (auto& subscriber : current) {
      try {
        (*subscriber)(args...);
      } catch (...) {
        // One failing subscriber must not keep the signal from the others.
      }
    }
  }
  void operator()(T... args) { trigger(args...); }

 private:
  boost::function<void(bool)> onSubscribers_;
  mutable std::mutex mutex_;
  std::map<SignalLink, std::shared_ptr<Subscriber>> subscribers_;
};

/// A subscriber given to Object::connect: a typed callable whose arguments are converted from
/// the signal's ZRValue form, so that it can be connected by signal name.
class SignalSubscriber {
 public:
  template <typename... Args>
  SignalSubscriber(boost::function<void(Args...)> fn)  // NOLINT: implicit on purpose
      : generic_([fn](const std::vector<ZR::ZRValue>& values) {
          if (values.size() != sizeof...(Args)) {
            throw ZR::ZRError("ko", "SignalSubscriber", "argument count mismatch");
          }
          callWith(fn, values, std::index_sequence_for<Args...>{});
        }) {}
  template <typename... Args>
  SignalSubscriber(std::function<void(Args...)> fn)  // NOLINT
      : SignalSubscriber(boost::function<void(Args...)>(std::move(fn))) {}

  const GenericSubscriber& generic() const { return generic_; }

 private:
  template <typename Fn, std::size_t... I>
  static void callWith(const Fn& fn, const std::vector<ZR::ZRValue>& values,
                       std::index_sequence<I...>) {
    fn(ZR::ZRValueConverter<std::decay_t<typename std::tuple_element<
           I, typename FunctionArgs<Fn>::type>::type>>::fromValue(values[I])...);
  }
  template <typename Fn>
  struct FunctionArgs;
  template <typename... Args>
  struct FunctionArgs<boost::function<void(Args...)>> {
    using type = std::tuple<Args...>;
  };

  GenericSubscriber generic_;
};

}  // namespace ko
