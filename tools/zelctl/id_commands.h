// trace-id, session-id, version.
#pragma once

namespace zelctl {

int RunTraceId(bool json);
int RunSessionId(bool json);
int RunVersion(bool json);

}  // namespace zelctl
