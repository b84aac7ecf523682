#include "contract.h"

const struct ContractSubject *const contractSubjects[] = {
    &syncContract, &taskContract,   &memoryContract,     &userMemoryContract, &deviceContract,
    &fileContract, &bufferContract, &fileSystemContract, &blockContract,      &hookContract,
};
const unsigned int contractSubjectCount = sizeof(contractSubjects) / sizeof(contractSubjects[0]);
