#ifndef VELTA_MODULE_DETECT_USER_POLICY_H
#define VELTA_MODULE_DETECT_USER_POLICY_H

// Holds the one switch of the policy that this module acts on. One object for the process, in zeroed static
// storage: it has no initialisers, so that it stands before any constructor runs.
//
// Thread use: the control thread.
class DetectUserPolicy {
 public:
  static DetectUserPolicy* GetInstance();

  // Takes the switch from the text alone, never from an earlier one. False when the text is null or not JSON;
  // the switch is then off.
  bool PrasePolicy(const char* policy);

  bool GetUnauthorizedRootUserStatus() const;

 private:
  bool unauthorizedRootUserStatus;
};

#endif  // VELTA_MODULE_DETECT_USER_POLICY_H
