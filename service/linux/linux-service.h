#pragma once

#include "service/cloud-service.h"

// The Linux upgrade flow of the service.
class LinuxService : public Service {
public:
    LinuxService();
    void StopService() override;
    int HandlePackageUpgrade() override;
    void PostUpgrade() override;
    void PreUpgrade() override;
    bool IsNeedUpgrade() override;
    bool PerUserBinPathExist() override;
    void LoadSourceVerInfo();
    void LoadTargetVerInfo();
    int LaunchPerUserBin();
};
