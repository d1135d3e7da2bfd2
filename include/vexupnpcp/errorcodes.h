#ifndef VEXUPNPCP_ERRORCODES_H_
#define VEXUPNPCP_ERRORCODES_H_

/*
 * Results of the plain functions in generic_cp.h and the code given to the host's callbacks.
 * Only the numbers are part of the binary interface. 0 is success; forwarded calls may also give
 * the plain code 1, each function says when.
 */
typedef enum errorcodes {
  CP_ERR_NONE = 0,
  /* See each function: no such device, RegisterCP without memory, an unknown handle in
     RescanNetwork. */
  CP_ERR_FAILURE = 1,
  /* A null argument, an unknown control point handle (RescanNetwork: CP_ERR_FAILURE), an unknown
     device to subscribe, a null list to free. */
  CP_ERR_INVALID_PARAMS = 15000,
  /* The generic control point is already registered with discovery. */
  CP_ERR_ALREADY_INITIALIZED = 15001,
  /* The control point profile or its registration with discovery could not be started. */
  CP_ERR_INIT_FAILED = 15002,
  /* InitializeGenericCP has not succeeded, or TerminateGenericCP came after it. */
  CP_ERR_NOT_INITIALIZED = 15003,
  /* An action or a subscription could not be built or sent. Any function, after an unexpected
     exception. */
  CP_ERR_OPERATION_FAILED = 15004,
  /* SendAction on a control point that has no action callback. */
  CP_ERR_NO_CALLBACK = 15005,
  /* To the action callback: the device reported an error, its answer could not be read, no answer
     came, or the action succeeded without output arguments. */
  CP_ERR_ACTION_FAILED = 15006,
  /* To the event callback: the notification could not be parsed. */
  CP_ERR_EVENT_PARSE = 15007,
  /* An allocation failed (RegisterCP: CP_ERR_FAILURE). */
  CP_ERR_OUT_OF_MEMORY = 15008,
  /* The service is already subscribed by this control point. */
  CP_ERR_ALREADY_SUBSCRIBED = 15009,
  /* The service is not subscribed by this control point. */
  CP_ERR_NOT_SUBSCRIBED = 15010
} errorcodes;

#endif /* VEXUPNPCP_ERRORCODES_H_ */
