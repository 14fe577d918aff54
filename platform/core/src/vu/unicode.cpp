#include <vu/unicode.h>

#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>

namespace vu {

const boost::filesystem::path::codecvt_type& unicodeFacet() {
  // Never destroyed: paths may be converted during static destruction.
  static const auto* facet = new boost::filesystem::detail::utf8_codecvt_facet();
  return *facet;
}

}  // namespace vu
