#ifndef NEMANAGER_COMMANDS_H
#define NEMANAGER_COMMANDS_H

#include "Manager.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

/// How the program ends.
enum ExitCode : int
{
    EXIT_ALL_GOOD = 0,
    EXIT_SOME_FAILED = 1, ///< an element is not connected, does not answer, or refuses
    EXIT_WRONG_USAGE = 2,
    EXIT_INTERRUPTED = 130,
};

/// The commands. Each prints what it got to the standard output, and what failed to the standard error.
/// @return how the program is to end
int Get(Manager& manager, const std::vector<SnmpOid>& names);
int Walk(Manager& manager, const SnmpOid& root, int nMaxRepetitions);
int Set(Manager& manager, const std::vector<SnmpVarBind>& values);
/// @param nRounds  0: until it is interrupted
int Watch(Manager& manager, const std::vector<SnmpOid>& names, double dInterval, int nRounds);
/// Until it is interrupted; what there is to show the manager tells.
int Listen();
/// In a laboratory, see examples/snmp/laboratory.
int Demo(const std::string& strLaboratory);

/// One question to each of several elements, sent as one list and waited for together.
class QuestionList
{
public:
    SnmpGet& Add(int iNeId, const std::vector<SnmpOid>& names);
    /// @return 0 when all were answered in time
    int Ask(int nTimeOut);

    const std::vector<std::unique_ptr<SnmpGet>>& Questions() const { return m_Questions; }

private:
    std::vector<std::unique_ptr<SnmpGet>> m_Questions;
};

/// Everything below a name, with get-bulk, in the element's order.
/// @param take  gets each
/// @return nothing, or what went wrong
std::string WalkElement(Manager& manager, int iNeId, const SnmpOid& root, int nMaxRepetitions,
                        const std::function<void(const SnmpVarBind&)>& take);

#endif
