// Command handlers of the consensus subsystem (nelsen, majority, freqdifs, comcomp,
// rfreqs, unshared, qnelsen). Each reads its own arguments and fails by error_exit.
#pragma once

namespace qax::support {

void cmd_nelsen();
void cmd_majority();
void cmd_freqdifs();
void cmd_comcomp();
void cmd_rfreqs();
void cmd_unshared();
void cmd_qnelsen();

}  // namespace qax::support
