#include "runguard.h"

#include <QCryptographicHash>

QString RunGuard::generateKeyHash(const QString& key, const QString& salt)
{
    QByteArray data;
    data.append(key.toUtf8());
    data.append(salt.toUtf8());
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha1).toHex());
}

RunGuard::RunGuard(const QString& key_)
    : key(key_), memLockKey(generateKeyHash(key_, QStringLiteral("_memLockKey"))),
      sharedmemKey(generateKeyHash(key_, QStringLiteral("_sharedmemKey"))), sharedMem(sharedmemKey),
      memLock(memLockKey, 1, QSystemSemaphore::Open)
{
    // Attaching and detaching clears a segment that a crashed holder left behind.
    memLock.acquire();
    {
        QSharedMemory fix(sharedmemKey);
        fix.attach();
    }
    memLock.release();
}

RunGuard::~RunGuard()
{
    release();
}

bool RunGuard::isAnotherRunning()
{
    if (sharedMem.isAttached())
        return false;
    memLock.acquire();
    const bool isRunning = sharedMem.attach();
    if (isRunning)
        sharedMem.detach();
    memLock.release();
    return isRunning;
}

bool RunGuard::tryToRun()
{
    if (isAnotherRunning())
        return false;
    memLock.acquire();
    const bool result = sharedMem.create(8);
    memLock.release();
    if (!result) {
        release();
        return false;
    }
    return true;
}

void RunGuard::release()
{
    memLock.acquire();
    if (sharedMem.isAttached())
        sharedMem.detach();
    memLock.release();
}
