#include <Windows/CmdTarget.h>

CCmdTarget::~CCmdTarget() = default;

void CCmdTarget::ClientConnection(CSocket* /*pSocket*/) {}

bool CCmdTarget::ClientActivity(int /*fd*/) { return true; }

bool CCmdTarget::ServerActivity() { return true; }

bool CCmdTarget::RouteMessage(void* /*pMsg*/, bool /*flag*/) { return false; }

void CCmdTarget::OnFinalRelease() {}
