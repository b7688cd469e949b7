#ifndef UVA_QUALIFY_GROUPS_H
#define UVA_QUALIFY_GROUPS_H

#include "findings.h"
#include "stage.h"

namespace qualify {

/// Checks that belong together. Each runs in a process of its own.
struct Group {
    const char* name;
    const char* what; ///< for the help and the report
    void (*run)(Stage& stage, Findings& findings);
};

extern const Group groupTable[];
extern const unsigned int groupCount;

/// Null: there is none of this name.
const Group* findGroup(const char* name);

void checkPlayback(Stage& stage, Findings& findings);
void checkPicture(Stage& stage, Findings& findings);
void checkAnswers(Stage& stage, Findings& findings);
void checkSeek(Stage& stage, Findings& findings);
void checkSwitch(Stage& stage, Findings& findings);
void checkUnderflow(Stage& stage, Findings& findings);
void checkPause(Stage& stage, Findings& findings);
void checkElements(Stage& stage, Findings& findings);
void checkRelease(Stage& stage, Findings& findings);
void checkResources(Stage& stage, Findings& findings);
void checkCapability(Stage& stage, Findings& findings);
void checkKeys(Stage& stage, Findings& findings);
void checkMainSystem(Stage& stage, Findings& findings);

} // namespace qualify

#endif
