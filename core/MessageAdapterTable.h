#ifndef TARN_CORE_MESSAGEADAPTERTABLE_H
#define TARN_CORE_MESSAGEADAPTERTABLE_H

/// Gives every message class the list of message adapters that the registrars have collected for it. The
/// list's previous content is replaced. @return false when the table could not be created, which is logged.
bool DistributeMessageAdapters();

#endif
