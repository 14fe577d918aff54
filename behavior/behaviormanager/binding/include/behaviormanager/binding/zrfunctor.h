// Typed functors over member functions: ZRFunctor_0, ZRFunctor_1 and ZRFunctor_3
// convert each argument of the remote call, call the member on its object and store
// its result.
//
//   boost::shared_ptr<ZRFunctorBase> f = createFunctor(this, &ZRBehaviorManager::runBehavior);
//   f->call(args, result);   // args[0] converted to std::string first
//
// A member pointer to a virtual function is called through the object's virtual table,
// as C++ member-pointer calls always are.
#pragma once

#include <zr/zrfunctorbase.h>
#include <zr/zrvalue.h>

#include <boost/shared_ptr.hpp>

#include "zrfunctorconvert.h"

namespace ZR {
namespace detail {

// Stores a member's result as a ZRValue; a void member leaves the result untouched.
template <typename R>
struct ResultStore {
  template <typename Call>
  static void invoke(Call&& call, ZRValue& result) {
    result = ZRValue(call());
  }
};
template <>
struct ResultStore<void> {
  template <typename Call>
  static void invoke(Call&& call, ZRValue&) {
    call();
  }
};

template <typename C, typename R>
class ZRFunctor_0 : public ZRFunctorBase {
public:
  using Member = R (C::*)();
  ZRFunctor_0(C* object, Member member) : fObject(object), fMember(member) {}
  void call(const ZRValue&, ZRValue& result) override {
    C* const object = fObject;  // locals, not members, in the lambdas: see ZRFunctor_1
    const Member member = fMember;
    ResultStore<R>::invoke([&]() -> R { return (object->*member)(); }, result);
  }

private:
  C* fObject;
  Member fMember;
};

template <typename C, typename P1, typename R>
class ZRFunctor_1 : public ZRFunctorBase {
public:
  using Member = R (C::*)(P1);
  ZRFunctor_1(C* object, Member member) : fObject(object), fMember(member) {}
  void call(const ZRValue& args, ZRValue& result) override {
    // The converted temporaries live until the end of the full expression, that is
    // until the member returns or throws. The lambda calls through copies of the two
    // members: GCC 12's -fsanitize=vptr checks a member reached through the captured
    // this against the closure instead of the functor, reports it and crashes.
    C* const object = fObject;
    const Member member = fMember;
    ResultStore<R>::invoke([&]() -> R { return (object->*member)(convertArgument<P1>(args, 0)); },
                           result);
  }

private:
  C* fObject;
  Member fMember;
};

template <typename C, typename P1, typename P2, typename P3, typename R>
class ZRFunctor_3 : public ZRFunctorBase {
public:
  using Member = R (C::*)(P1, P2, P3);
  ZRFunctor_3(C* object, Member member) : fObject(object), fMember(member) {}
  void call(const ZRValue& args, ZRValue& result) override {
    C* const object = fObject;  // locals, not members, in the lambdas: see ZRFunctor_1
    const Member member = fMember;
    ResultStore<R>::invoke(
        [&]() -> R {
          return (object->*member)(convertArgument<P1>(args, 0), convertArgument<P2>(args, 1),
                                   convertArgument<P3>(args, 2));
        },
        result);
  }

private:
  C* fObject;
  Member fMember;
};

}  // namespace detail

template <typename C, typename R>
boost::shared_ptr<ZRFunctorBase> createFunctor(C* object, R (C::*member)()) {
  return boost::shared_ptr<ZRFunctorBase>(new detail::ZRFunctor_0<C, R>(object, member));
}

template <typename C, typename P1, typename R>
boost::shared_ptr<ZRFunctorBase> createFunctor(C* object, R (C::*member)(P1)) {
  return boost::shared_ptr<ZRFunctorBase>(new detail::ZRFunctor_1<C, P1, R>(object, member));
}

template <typename C, typename P1, typename P2, typename P3, typename R>
boost::shared_ptr<ZRFunctorBase> createFunctor(C* object, R (C::*member)(P1, P2, P3)) {
  return boost::shared_ptr<ZRFunctorBase>(
      new detail::ZRFunctor_3<C, P1, P2, P3, R>(object, member));
}

}  // namespace ZR
