<%
' SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: every line
' below is a comment.
' marker of a classic ASP one-liner: execute(request("x"))
%>
<html><body><p>Legacy default page.</p></body></html>
