// Once and repeating callbacks with bound arguments.
//
//   auto once = tarn_base::BindOnce(&Recorder::OnFrame, tarn_base::Unretained(this),
//                                   std::move(frame));   // the frame is moved, never copied
//   std::move(once).Run();
//   tarn_base::RepeatingClosure tick =
//       tarn_base::BindRepeating(&Recorder::Process, tarn_base::Unretained(this));
//
// A OnceCallback owns its bound arguments and hands them to the function by rvalue on
// its single Run(); running consumes it. A RepeatingCallback is copyable (copies share
// one bound state) and passes its bound arguments as const lvalues on every Run().
// Binding costs one heap allocation. A member function is bound with its receiver as
// the first bound argument: a raw pointer wrapped in Unretained() (the caller
// guarantees the object outlives the callback) or any smart pointer.
#ifndef SDK_BASE_CALLBACK_H_
#define SDK_BASE_CALLBACK_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tarn_base {

template <typename T>
class UnretainedWrapper {
 public:
  explicit UnretainedWrapper(T* ptr) : ptr_(ptr) {}
  T* get() const { return ptr_; }

 private:
  T* ptr_;
};

// Binds a receiver without taking ownership or a reference.
template <typename T>
UnretainedWrapper<T> Unretained(T* ptr) {
  return UnretainedWrapper<T>(ptr);
}

namespace internal {

template <typename T>
struct Unwrapper {
  template <typename U>
  static U&& Get(U&& value) {
    return std::forward<U>(value);
  }
};
template <typename T>
struct Unwrapper<UnretainedWrapper<T>> {
  static T* Get(const UnretainedWrapper<T>& wrapper) { return wrapper.get(); }
};

// The signature R(A...) of a functor, with the receiver of a member function as the
// first parameter.
template <typename F, typename = void>
struct FunctorTraits;
template <typename R, typename... A>
struct FunctorTraits<R (*)(A...)> {
  using RunType = R(A...);
};
template <typename R, typename C, typename... A>
struct FunctorTraits<R (C::*)(A...)> {
  using RunType = R(C*, A...);
};
template <typename R, typename C, typename... A>
struct FunctorTraits<R (C::*)(A...) const> {
  using RunType = R(const C*, A...);
};
template <typename M>
struct CallOperatorTraits;
template <typename R, typename L, typename... A>
struct CallOperatorTraits<R (L::*)(A...)> {
  using RunType = R(A...);
};
template <typename R, typename L, typename... A>
struct CallOperatorTraits<R (L::*)(A...) const> {
  using RunType = R(A...);
};
// Lambdas and other functors with one operator().
template <typename F>
struct FunctorTraits<F, std::void_t<decltype(&F::operator())>> {
  using RunType = typename CallOperatorTraits<decltype(&F::operator())>::RunType;
};

// R(A...) without its first N parameters.
template <std::size_t N, typename Sig>
struct DropParams;
template <std::size_t N, typename R, typename... A>
struct DropParams<N, R(A...)> {
  static_assert(N <= sizeof...(A), "more bound arguments than parameters");
  template <std::size_t... I>
  static auto Make(std::index_sequence<I...>)
      -> R (*)(std::tuple_element_t<N + I, std::tuple<A...>>...);
  using type = std::remove_pointer_t<decltype(Make(std::make_index_sequence<sizeof...(A) - N>()))>;
};

template <typename R, typename... A>
class OnceStateBase {
 public:
  virtual ~OnceStateBase() = default;
  virtual R Run(A&&... args) = 0;
};

template <typename R, typename... A>
class RepeatingStateBase {
 public:
  virtual ~RepeatingStateBase() = default;
  virtual R Run(A&&... args) const = 0;
};

template <typename F, typename Bound, typename R, typename... A>
class OnceState;
template <typename F, typename... Bound, typename R, typename... A>
class OnceState<F, std::tuple<Bound...>, R, A...> final : public OnceStateBase<R, A...> {
 public:
  template <typename G, typename... B>
  explicit OnceState(G&& f, B&&... bound)
      : f_(std::forward<G>(f)), bound_(std::forward<B>(bound)...) {}
  R Run(A&&... args) override {
    return RunImpl(std::index_sequence_for<Bound...>(), std::forward<A>(args)...);
  }

 private:
  template <std::size_t... I>
  R RunImpl(std::index_sequence<I...>, A&&... args) {
    return std::invoke(std::move(f_), Unwrapper<Bound>::Get(std::move(std::get<I>(bound_)))...,
                       std::forward<A>(args)...);
  }
  F f_;
  std::tuple<Bound...> bound_;
};

template <typename F, typename Bound, typename R, typename... A>
class RepeatingState;
template <typename F, typename... Bound, typename R, typename... A>
class RepeatingState<F, std::tuple<Bound...>, R, A...> final : public RepeatingStateBase<R, A...> {
 public:
  template <typename G, typename... B>
  explicit RepeatingState(G&& f, B&&... bound)
      : f_(std::forward<G>(f)), bound_(std::forward<B>(bound)...) {}
  R Run(A&&... args) const override {
    return RunImpl(std::index_sequence_for<Bound...>(), std::forward<A>(args)...);
  }

 private:
  template <std::size_t... I>
  R RunImpl(std::index_sequence<I...>, A&&... args) const {
    return std::invoke(f_, Unwrapper<Bound>::Get(std::get<I>(bound_))..., std::forward<A>(args)...);
  }
  F f_;
  std::tuple<Bound...> bound_;
};

}  // namespace internal

template <typename Sig>
class OnceCallback;
template <typename Sig>
class RepeatingCallback;

template <typename R, typename... A>
class RepeatingCallback<R(A...)> {
 public:
  using StateBase = internal::RepeatingStateBase<R, A...>;

  RepeatingCallback() = default;
  RepeatingCallback(std::nullptr_t) {}  // NOLINT(runtime/explicit)
  explicit RepeatingCallback(std::shared_ptr<const StateBase> state) : state_(std::move(state)) {}

  bool is_null() const { return !state_; }
  explicit operator bool() const { return !is_null(); }
  void Reset() { state_.reset(); }

  // Precondition: !is_null().
  R Run(A... args) const { return state_->Run(std::forward<A>(args)...); }

 private:
  std::shared_ptr<const StateBase> state_;
};

template <typename R, typename... A>
class OnceCallback<R(A...)> {
 public:
  using StateBase = internal::OnceStateBase<R, A...>;

  OnceCallback() = default;
  OnceCallback(std::nullptr_t) {}  // NOLINT(runtime/explicit)
  explicit OnceCallback(std::unique_ptr<StateBase> state) : state_(std::move(state)) {}
  // A repeating callback can always serve where a once callback is wanted.
  OnceCallback(RepeatingCallback<R(A...)> repeating)  // NOLINT(runtime/explicit)
      : state_(repeating.is_null() ? nullptr : Adopt(std::move(repeating))) {}
  OnceCallback(OnceCallback&&) noexcept = default;
  OnceCallback& operator=(OnceCallback&&) noexcept = default;
  OnceCallback(const OnceCallback&) = delete;
  OnceCallback& operator=(const OnceCallback&) = delete;

  bool is_null() const { return !state_; }
  explicit operator bool() const { return !is_null(); }
  // Destroys the bound state, and with it the bound arguments, without running.
  void Reset() { state_.reset(); }

  // Consumes the callback: it is null afterwards, and the bound state is destroyed
  // when Run returns. Precondition: !is_null().
  R Run(A... args) && {
    std::unique_ptr<StateBase> state = std::move(state_);
    return state->Run(std::forward<A>(args)...);
  }

 private:
  static std::unique_ptr<StateBase> Adopt(RepeatingCallback<R(A...)> repeating) {
    auto run = [cb = std::move(repeating)](A... args) { return cb.Run(std::forward<A>(args)...); };
    return std::make_unique<internal::OnceState<decltype(run), std::tuple<>, R, A...>>(
        std::move(run));
  }

  std::unique_ptr<StateBase> state_;
};

using OnceClosure = OnceCallback<void()>;
using RepeatingClosure = RepeatingCallback<void()>;

namespace internal {
template <typename F, typename... B>
using UnboundRunType =
    typename DropParams<sizeof...(B), typename FunctorTraits<std::decay_t<F>>::RunType>::type;

template <typename Sig>
struct CallbackParts;
template <typename R, typename... A>
struct CallbackParts<R(A...)> {
  template <typename F, typename... B>
  static OnceCallback<R(A...)> MakeOnce(F&& f, B&&... bound) {
    using State = OnceState<std::decay_t<F>, std::tuple<std::decay_t<B>...>, R, A...>;
    return OnceCallback<R(A...)>(
        std::make_unique<State>(std::forward<F>(f), std::forward<B>(bound)...));
  }
  template <typename F, typename... B>
  static RepeatingCallback<R(A...)> MakeRepeating(F&& f, B&&... bound) {
    using State = RepeatingState<std::decay_t<F>, std::tuple<std::decay_t<B>...>, R, A...>;
    return RepeatingCallback<R(A...)>(
        std::make_shared<const State>(std::forward<F>(f), std::forward<B>(bound)...));
  }
};
}  // namespace internal

template <typename F, typename... B>
OnceCallback<internal::UnboundRunType<F, B...>> BindOnce(F&& functor, B&&... bound) {
  return internal::CallbackParts<internal::UnboundRunType<F, B...>>::MakeOnce(
      std::forward<F>(functor), std::forward<B>(bound)...);
}

template <typename F, typename... B>
RepeatingCallback<internal::UnboundRunType<F, B...>> BindRepeating(F&& functor, B&&... bound) {
  return internal::CallbackParts<internal::UnboundRunType<F, B...>>::MakeRepeating(
      std::forward<F>(functor), std::forward<B>(bound)...);
}

}  // namespace tarn_base

#endif  // SDK_BASE_CALLBACK_H_
