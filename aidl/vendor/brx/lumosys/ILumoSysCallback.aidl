/*
 * Implemented by a client of ILumoSys that wants to hear of permission
 * changes; registered with ILumoSys.setPermissionChangeCallback.
 */
package vendor.brx.lumosys;

@VintfStability
interface ILumoSysCallback {
    /*
     * The app running as `uid` (process `pid`) was granted (`status` true)
     * or denied (`status` false) the Android permission `permission`, a fully
     * qualified name such as "android.permission.CAMERA".
     * Two-way on purpose: the service learns when the client has taken the
     * change in, and a dead client shows up as a failed call.
     */
    void onpermissionchanged(int pid, int uid, String permission, boolean status);
}
