<%-- SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell: the
     marker of a JSP command shell appears only inside this comment:
     Runtime.getRuntime().exec(request.getParameter("c"))
--%>
<html><body><p>Nothing runs here.</p></body></html>
