/*
 * One record of the service's API catalogue: what an API needs before the
 * manager lets it run. All fields are texts; the manager reads them by
 * position, so new fields may only ever be appended.
 */
package vendor.brx.lumosys;

@VintfStability
parcelable APIInfo {
    /* API identifier: name, then ':'-separated signature parts
     * ("getLocation:2:int:string"). */
    String id;
    /* Android permissions the API needs, ':'-separated; empty: none. */
    String permissions;
    /* Privacy operation started when the API runs, and the one that stops it. */
    String startOp;
    String stopOp;
    /* Reserved for the service's own use; passed through unchanged. */
    String extra1;
    String extra2;
    /* Decimal subsystem id the record applies to. */
    String subsystem;
}
