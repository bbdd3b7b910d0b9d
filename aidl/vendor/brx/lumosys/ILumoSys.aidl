/*
 * The vendor system service that decides app permissions and privacy
 * operations for the lumokit service manager, and answers facts about a
 * client process. Instance: "vendor.brx.lumosys.ILumoSys/default".
 *
 * Version 3. Methods are only ever appended; never reorder or change them.
 */
package vendor.brx.lumosys;

import vendor.brx.lumosys.APIInfo;
import vendor.brx.lumosys.ILumoSysCallback;

@VintfStability
interface ILumoSys {
    /*
     * The information keys that queryInfo can answer (for example
     * "app.name.package"), so a client can tell an unsupported key from an
     * empty answer.
     */
    String[] getSupportedQueryKeys();

    /*
     * Whether the app (`pid`, `uid`) holds each permission in `permissions`
     * (fully qualified names). `granted` receives one entry per name, in the
     * same order, true = granted. An unknown app holds nothing.
     * (A Java caller must size `granted` to permissions.size(), as for any
     * out array.)
     */
    void checkGrantedPermissions(int pid, int uid, in List<String> permissions,
            out boolean[] granted);

    /*
     * Facts about the client process (`pid`, `uid`), one answer per key in
     * `keys`, index by index; an empty text where the service has no answer.
     * Keys: "app.name.package" (the package name, unprefixed),
     * "app.id.cert_hash" ("SUCCESS:" + signing-certificate hash),
     * "app.status.fore_back" ("SUCCESS:foreground" or "SUCCESS:background").
     */
    void queryInfo(int pid, int uid, in List<String> keys, out List<String> answers);

    /*
     * Starts (`stop` false) or stops (`stop` true) the privacy operation `op`
     * (an APIInfo startOp/stopOp text) on behalf of the app (`pid`, `uid`).
     * Returns 0 when the operation was noted, a negative code otherwise.
     */
    int updatePrivacyOperation(String op, int pid, int uid, boolean stop);

    /* The whole API catalogue, in the service's order. */
    List<APIInfo> getAPIInfo();

    /*
     * Registers the one callback that hears of permission changes; a new
     * registration replaces the previous one. Registrations do not survive a
     * restart of the service: clients register again after a death notice.
     */
    void setPermissionChangeCallback(ILumoSysCallback cb);
}
