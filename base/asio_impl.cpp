// Asio is compiled once, here, and not anew in every file that includes it.
#include <boost/asio/impl/src.hpp>
