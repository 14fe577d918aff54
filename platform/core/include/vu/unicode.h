// vu::unicodeFacet — the UTF-8 conversion facet used where strings become
// boost::filesystem paths, so that names outside ASCII survive the trip.
#pragma once

#include <boost/filesystem/path.hpp>

namespace vu {

const boost::filesystem::path::codecvt_type& unicodeFacet();

}  // namespace vu
