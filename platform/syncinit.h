/* The start-up synchroniser: tells the platform when this service is ready.
 *
 * On a device the platform provides it; on a plain Linux host it is the service manager's
 * notification socket where there is one (NOTIFY_SOCKET), otherwise nothing. */
#ifndef IPACL_PLATFORM_SYNCINIT_H
#define IPACL_PLATFORM_SYNCINIT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Reports that the service is ready to take requests. */
void syncinit_finish(void);

#ifdef __cplusplus
}
#endif

#endif
