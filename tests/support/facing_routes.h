#ifndef VEXUPNPCP_TESTS_SUPPORT_FACING_ROUTES_H_
#define VEXUPNPCP_TESTS_SUPPORT_FACING_ROUTES_H_

namespace vex_test {

// For programs that run inside tools/in_netns, where both ends of a link are addresses of one
// machine: from here to the end of the scope a connection to a peer's address comes from the near
// end's, as it does when the peer is another machine.
class FacingRoutes {
 public:
  FacingRoutes();
  FacingRoutes(const FacingRoutes&) = delete;
  FacingRoutes& operator=(const FacingRoutes&) = delete;
  ~FacingRoutes();
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_FACING_ROUTES_H_
