#include "contract.h"

const struct ContractSubject *const contractSubjects[] = {
    &syncContract,   &taskContract,   &memoryContract,     &userMemoryContract,
    &deviceContract, &bufferContract, &fileSystemContract, &blockContract,
};
const unsigned int contractSubjectCount = sizeof(contractSubjects) / sizeof(contractSubjects[0]);
