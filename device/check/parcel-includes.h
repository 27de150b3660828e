// Force-included: the packaged (older) libbinder Parcel.h uses std::unique_ptr,
// std::shared_ptr and std::numeric_limits without including <memory> and
// <limits>; later releases include them.
#include <limits>
#include <memory>
