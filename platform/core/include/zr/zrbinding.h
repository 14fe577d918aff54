// Registering remote methods of a module in one call each, with their published
// description, parameter names and type texts.
//
// A member function:
//   bindMember(this, &ZRMemory::getData,
//              {"getData", "Get the value stored under a key.",
//               {{"key", "name of the data"}}, "value", "the stored value"});
// The description is checked against the member's signature once, at registration;
// each call then converts its arguments and names the parameter that does not fit.
//
// A callable, for methods that forward or stand in for another module's:
//   bindCallable(module, {"echo", "Returns its argument.", {{"text", TypeCodeString}},
//                         TypeCodeString, "text", "the same text"},
//                [](const ZRValue& args, ZRValue& result) { result = args[0]; });
#pragma once

#include <zr/zrerror.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodulecore.h>
#include <zr/zrtypes.h>
#include <zr/zrvalue.h>

#include <boost/make_shared.hpp>
#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ZR {

struct MethodDoc {
  MethodDoc(std::string n, std::string d, std::vector<std::pair<std::string, std::string>> p,
            std::string rn = "", std::string rd = "")
      : name(std::move(n)),
        description(std::move(d)),
        params(std::move(p)),
        returnName(std::move(rn)),
        returnDescription(std::move(rd)) {}
  std::string name;
  std::string description;
  std::vector<std::pair<std::string, std::string>> params;  // name, description
  std::string returnName;                                   // empty: no result line
  std::string returnDescription;
};

namespace detail {

// ZRValue to a parameter type; the ZRValue accessors throw on a type mismatch.
template <typename T>
T argumentAs(const ZRValue& value);
template <>
inline ZRValue argumentAs<ZRValue>(const ZRValue& value) {
  return value;
}
template <>
inline std::string argumentAs<std::string>(const ZRValue& value) {
  return value.toString();
}
template <>
inline bool argumentAs<bool>(const ZRValue& value) {
  return value.toBool();
}
template <>
inline int argumentAs<int>(const ZRValue& value) {
  return value.toInt();
}
template <>
inline float argumentAs<float>(const ZRValue& value) {
  return value.toFloat();
}

template <typename T>
T convertParameter(const std::string& module, const MethodDoc& doc, const ZRValue& args,
                   std::size_t index) {
  try {
    return argumentAs<T>(args[static_cast<int>(index)]);
  } catch (const ZRError& error) {
    throw ZRError(module, doc.name,
                  "parameter " + std::to_string(index + 1) + " (" + doc.params[index].first +
                      ") must be " + getTypeString(TypeCode<T>::value) + ": " + error.description(),
                  __FILE__, __LINE__);
  }
}

template <typename C, typename R, typename... P, std::size_t... I>
void invokeMember(C* object, R (C::*member)(P...), const MethodDoc& doc, const ZRValue& args,
                  ZRValue& result, std::index_sequence<I...>) {
  const std::string& module = object->getName();
  if constexpr (std::is_void_v<R>) {
    (object->*member)(convertParameter<bare_t<P>>(module, doc, args, I)...);
    (void)result;
  } else {
    result = ZRValue((object->*member)(convertParameter<bare_t<P>>(module, doc, args, I)...));
  }
}

}  // namespace detail

template <typename C, typename R, typename... P>
void bindMember(C* object, R (C::*member)(P...), const MethodDoc& doc) {
  if (doc.params.size() != sizeof...(P)) {
    throw ZRError(object->getName(), "bindMember",
                  "the description of " + doc.name + " names " + std::to_string(doc.params.size()) +
                      " parameters, the member takes " + std::to_string(sizeof...(P)),
                  __FILE__, __LINE__);
  }
  object->functionName(doc.name, object->getName(), doc.description, 0);
  for (const auto& param : doc.params) object->addParam(param.first, param.second);
  if (!doc.returnName.empty()) object->setReturn(doc.returnName, doc.returnDescription);
  ZRMethodInfo& info = object->getCurrentMethodDescription();
  info.returnType = getTypeString(detail::TypeCode<detail::bare_t<R>>::value);
  const int codes[] = {detail::TypeCode<detail::bare_t<P>>::value..., 0};
  for (std::size_t i = 0; i < sizeof...(P); ++i) info.parameters[i].type = getTypeString(codes[i]);

  object->bindMethod(boost::make_shared<ZRCallableFunctor>(
      [object, member, doc](const ZRValue& args, ZRValue& result) {
        detail::invokeMember(object, member, doc, args, result, std::index_sequence_for<P...>());
      }));
}

// A method made of a callable: its name and description, its parameters as (name, type
// code), each described as "the <name>", its result type code and, when returnName is
// not empty, its result line. `overload` adds it beside an existing method of that name.
struct CallableMethod {
  CallableMethod(std::string n, std::string d, std::vector<std::pair<std::string, int>> p = {},
                 int rt = TypeCodeVoid, std::string rn = "", std::string rd = "", bool o = false)
      : name(std::move(n)),
        description(std::move(d)),
        params(std::move(p)),
        returnType(rt),
        returnName(std::move(rn)),
        returnDescription(std::move(rd)),
        overload(o) {}
  std::string name;
  std::string description;
  std::vector<std::pair<std::string, int>> params;
  int returnType;
  std::string returnName;
  std::string returnDescription;
  bool overload;
};

inline void bindCallable(ZRModuleCore& module, const CallableMethod& method,
                         ZRCallableFunctor::Target target) {
  module.functionName(method.name, module.getName(), method.description, 0);
  for (const auto& param : method.params) {
    module.addParam(param.first, "the " + param.first);
    module.getCurrentMethodDescription().parameters.back().type = getTypeString(param.second);
  }
  if (!method.returnName.empty()) module.setReturn(method.returnName, method.returnDescription);
  module.getCurrentMethodDescription().returnType = getTypeString(method.returnType);
  auto functor = boost::make_shared<ZRCallableFunctor>(std::move(target));
  if (method.overload) {
    module.bindMethodOverload(functor);
  } else {
    module.bindMethod(functor);
  }
}

}  // namespace ZR
