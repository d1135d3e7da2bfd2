#ifndef VEXUPNPCP_TESTS_STRESS_OBJECT_CALLS_H_
#define VEXUPNPCP_TESTS_STRESS_OBJECT_CALLS_H_

namespace vex_stress {

// Each makes its own objects and lets them go again.
void HandleMessage();
void BuildDocument();
void WalkDocument();
void WalkFault();

}  // namespace vex_stress

#endif  // VEXUPNPCP_TESTS_STRESS_OBJECT_CALLS_H_
