#ifndef VELTA_DETECT_UNAUTHORIZED_ROOT_USER_H
#define VELTA_DETECT_UNAUTHORIZED_ROOT_USER_H

#include <mutex>
#include <set>
#include <vector>

#include "collector/passwd_info.h"

// Keeps the last account snapshot as its baseline and raises one alert for every account that has user ID 0
// in a new snapshot, is not named "root" and did not have user ID 0 in the baseline.
//
// The baseline starts empty, so the first snapshot reports every standing root account: there is deliberately
// no silent learning run. It outlives a stop of the module and ends at its unload.
//
// Thread use: Init and UnInit on the control thread; a detection on whatever thread publishes the snapshot,
// one at a time. Exceptions pass to the publisher; the baseline is then as it was before the snapshot.
class UnauthorizedRootUser {
 public:
  static UnauthorizedRootUser& GetInstance();

  // Subscribes to the snapshots; false when the detector is subscribed already.
  bool Init() const;

  // Ends the subscription. The baseline stays.
  void UnInit() const;

  // Compares one snapshot with the baseline. Nothing that it calls may publish a snapshot on this thread.
  static void DetectUnauthorizedRootUser(const std::vector<PasswdInfo>& users);

  // The steps of a detection: called with detectMutex held, or while nothing detects.
  void CmpUserInfo(const std::set<PasswdInfo>& users);
  void ComparePasswd(const PasswdInfo& oldInfo, const PasswdInfo& newInfo);
  void SendUserAlert(const PasswdInfo& info);

  static std::mutex detectMutex;  // makes detections exclusive; guards baseline

 private:
  UnauthorizedRootUser() = default;
  ~UnauthorizedRootUser() = default;
  UnauthorizedRootUser(const UnauthorizedRootUser&) = delete;
  UnauthorizedRootUser& operator=(const UnauthorizedRootUser&) = delete;

  std::set<PasswdInfo> baseline;
};

#endif  // VELTA_DETECT_UNAUTHORIZED_ROOT_USER_H
