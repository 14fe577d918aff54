// completeAndCheck — completes an open method description from the member's
// signature: the result's type text and each parameter's. Parameters that were not
// declared with addParam get records named "arg1", "arg2", ...
#pragma once

#include <zr/zrmethodinfo.h>
#include <zr/zrtypes.h>

#include <string>

#include "zrfunctorconvert.h"

namespace ZR {

template <typename C, typename R, typename... P>
void completeAndCheck(R (C::*)(P...), ZRMethodInfo& info) {
  info.returnType = getTypeString(detail::TypeCode<R>::value);
  const int codes[] = {detail::TypeCode<detail::bare_t<P>>::value..., 0};
  const int count = static_cast<int>(sizeof...(P));
  for (int i = 0; i < count; ++i) {
    if (i >= info.arity()) {
      info.parameters.push_back({"arg" + std::to_string(i + 1), "", ""});
    }
    info.parameters[i].type = getTypeString(codes[i]);
  }
}

}  // namespace ZR
